#include "inputs/ConstLineParam.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Block(std::initializer_list<std::string> lines) {
    std::string text = kRule + "ERROR:CONSTLINEPARAM OBJECT METHOD\n";
    for (const std::string& line : lines)
        text += line + "\n";
    return text + kRule;
}

const std::string kReadFrame = "\n>>>>>>>>>>>>> ConstLine Parameter File Input:\n";
const std::string kFormatBlock =
    Block({"  ERROR-DETAIL:Abnormal action at Reading File Method.",
           "  ERROR-DETAIL:You should check the Format of ConstLine Parameter File."});

Printed Read(ConstLineParam& p, const TempDir& dir, const std::string& text) {
    p = ConstLineParam(XML_CONSTLINE{dir.Write("lines.txt", text)});
    return Capture([&] { return p.ReadFile(); });
}

TEST(ConstLineParamReadFile, FieldsCommentsAndDuplicates) {
    TempDir dir;
    ConstLineParam p;
    const Printed printed = Read(p, dir,
                                 "# id rate kind label\n"
                                 "10 0.25 1 north-wall extra columns\n"
                                 "11\t1.0\t\t2   harbour\n"
                                 "10 0.75 0 dropped\n"
                                 "3000000000 -0.1 7 last");
    EXPECT_EQ(printed.result, 1);
    EXPECT_EQ(printed.out, kReadFrame + "<<<<<<<<<<<<<<<<<< Completed.\n");
    EXPECT_EQ(printed.err, "");
    EXPECT_FALSE(p.noFile);
    ASSERT_EQ(p.params.size(), 3u);
    EXPECT_EQ(p.params.at(10).sinkRate, 0.25); // an identifier's first line wins
    EXPECT_EQ(p.params.at(10).label, "north-wall");
    EXPECT_EQ(p.params.at(11).kind, 2);
    EXPECT_EQ(p.params.at(11).label, "harbour\n"); // Kept: the newline ends the label
    // No range check while reading; identifiers keep their low 32 bits.
    const CONSTLINE_PARAM& wrapped = p.params.at(static_cast<int>(3000000000LL - (1LL << 32)));
    EXPECT_EQ(wrapped.sinkRate, -0.1);
    EXPECT_EQ(wrapped.kind, 7);
    EXPECT_EQ(wrapped.label, "last");
}

TEST(ConstLineParamReadFile, FormatErrorsAndLinePieces) {
    TempDir dir;
    ConstLineParam p;
    // Fewer than four fields; a blank line is one field, "\n"; blanks only are none.
    for (const char* text : {"1 0.5 0\n", "1 0.5 0 a\n\n2 0.5 0 b\n", "   \t\n"}) {
        const Printed printed = Read(p, dir, text);
        EXPECT_EQ(printed.result, 0) << text;
        EXPECT_EQ(printed.out, kReadFrame) << text;
        EXPECT_EQ(printed.err, kFormatBlock) << text;
    }
    ASSERT_EQ(Read(p, dir, "1 0.5 0 \n").result, 1); // a blank before the newline: 4 fields
    EXPECT_EQ(p.params.at(1).label, "\n");

    // A line is read in pieces of 1022 characters, each piece a line of its own.
    const std::string first = "1 0.5 0 first";
    ASSERT_EQ(Read(p, dir, first + std::string(1022 - first.size(), ' ') + "7 0.25 2 tail").result,
              1);
    EXPECT_EQ(p.params.at(1).label, "first");
    EXPECT_EQ(p.params.at(7).label, "tail");
    const Printed cut = Read(p, dir, "1 0.5 0 " + std::string(1100, 'L') + "\n");
    EXPECT_EQ(cut.err, kFormatBlock); // the label's rest is a line of one field
    EXPECT_EQ(p.params.at(1).label, std::string(1022 - 8, 'L'));
}

TEST(ConstLineParamReadFile, FileThatCannotBeRead) {
    TempDir dir;
    // Absent, unnamed, or a directory, which opens but cannot be read.
    for (const std::string& path :
         {dir.path().string() + "/absent.txt", std::string(), dir.path().string()}) {
        ConstLineParam p(XML_CONSTLINE{path});
        const Printed printed = Capture([&] { return p.ReadFile(); });
        EXPECT_EQ(printed.result, 0);
        EXPECT_EQ(printed.out, kReadFrame);
        EXPECT_EQ(
            printed.err,
            Block(
                {"  ERROR-DETAIL:Abnormal action at Reading File Method.",
                 "  ERROR-DETAIL:Can not open file.",
                 "  ERROR-DETAIL:Particular attention should be given to \"ConstLine Parameter File\"."}));
    }
}

// 1 intact kind 0, 2 half sunk kind 1, 3 intact kind 2, 4 gone, 5 of an unknown kind,
// 6 with a rate no structure can have, 0 listed although 0 means no structure.
ConstLineParam Structures() {
    ConstLineParam p;
    p.params = {{1, {0.0, 0, "wall"}}, {2, {0.5, 1, "breakwater"}}, {3, {0.0, 2, "dike"}},
                {4, {1.0, 0, "gone"}}, {5, {0.25, 3, "odd"}},       {6, {1.5, 1, "bad"}},
                {0, {0.0, 1, "zero"}}};
    return p;
}

TEST(ConstLineParamMakeWBMap, ClassPerFace) {
    // Faces of a 3 x 2 grid, [i][j][k]; the map starts at -7 everywhere.
    const std::int32_t ids[3][2][2] = {{{1, 2}, {3, 4}}, {{0, 99}, {5, 6}}, {{1, 0}, {2, 3}}};
    // 100, 1, 2 by kind; 0 for sunk, unlisted and no structure; kind 3 keeps the -7;
    // rate 1.5 is still classed by its kind.
    const std::int32_t expected[3][2][2] = {
        {{100, 1}, {2, 0}}, {{0, 0}, {-7, 1}}, {{100, 0}, {1, 2}}};
    Grid2d<std::int32_t, 2> idGrid, map;
    idGrid.Assign(3, 2, 0);
    map.Assign(3, 2, -7);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 2; ++j)
            for (int k = 0; k < 2; ++k)
                idGrid[i][j][k] = ids[i][j][k];
    const Printed printed = Capture([&] { return Structures().MakeWBMap(3, 2, idGrid, map); });
    EXPECT_EQ(printed.result, 1);
    EXPECT_EQ(printed.out + printed.err, "");
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 2; ++j)
            for (int k = 0; k < 2; ++k)
                EXPECT_EQ(map[i][j][k], expected[i][j][k]) << i << j << k;
}

struct Faces {
    Grid2d<double, 2> heights, sunk;
    Grid2d<std::int32_t, 2> ids;
    Grid2d<double> topo;
};

// 2 x 2 cells with ground 1 (0,0), 2 (1,0), 3 (0,1), 5 (1,1), crests 6, one structure.
Faces TwoByTwo(std::int32_t id) {
    Faces f;
    f.heights.Assign(2, 2, 6.0);
    f.sunk.Assign(2, 2, -1.0);
    f.ids.Assign(2, 2, id);
    f.topo.Assign(2, 2, 1.0);
    f.topo[1][0] = 2.0;
    f.topo[0][1] = 3.0;
    f.topo[1][1] = 5.0;
    return f;
}

bool Sink(const ConstLineParam& p, Faces& f, Printed* printed = nullptr) {
    const Printed result =
        Capture([&] { return p.SinkWB(2, 2, 123.0, f.heights, f.ids, f.topo, f.sunk); });
    if (printed)
        *printed = result;
    return result.result == 1;
}

TEST(ConstLineParamSinkWB, CrestLoweredTowardHigherGround) {
    Faces f = TwoByTwo(2); // rate 0.5
    Printed printed;
    ASSERT_TRUE(Sink(Structures(), f, &printed));
    EXPECT_EQ(printed.out + printed.err, "");
    // Ground: the higher of the face's two cells; the own cell on the last row or column.
    const double ground[2][2][2] = {{{3, 2}, {3, 5}}, {{5, 2}, {5, 5}}};
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j)
            for (int k = 0; k < 2; ++k)
                EXPECT_EQ(f.sunk[i][j][k], ground[i][j][k] + (6.0 - ground[i][j][k]) * 0.5)
                    << i << j << k;

    // Face 1 of (0, 0), ground 2, by structure: intact, gone (ground), unlisted (crest),
    // half sunk, and none (0.0, even though 0 is listed).
    ConstLineParam p = Structures();
    p.params[7] = {0.5, 0, "example"};
    using Row = std::pair<std::int32_t, double>;
    for (auto [id, expected] : {Row{1, 6.0}, Row{4, 2.0}, Row{42, 6.0}, Row{7, 4.0}, Row{0, 0.0}}) {
        Faces one = TwoByTwo(id);
        ASSERT_TRUE(Sink(p, one));
        EXPECT_EQ(one.sunk[0][0][1], expected) << id;
    }
}

TEST(ConstLineParamSinkWB, RateOutOfRangeStopsAtItsFace) {
    for (double rate : {1.5, -0.1, 1.0000001}) {
        ConstLineParam p = Structures();
        p.params[6].sinkRate = rate;
        Faces f = TwoByTwo(1);
        f.ids[0][1][1] = 6; // i outer, j inner: three faces come before it
        Printed printed;
        EXPECT_FALSE(Sink(p, f, &printed));
        EXPECT_EQ(printed.out, "");
        EXPECT_EQ(
            printed.err,
            Block(
                {"  ERROR-DETAIL:Abnormal action at SinkRate().",
                 "  ERROR-DETAIL:Particular attention should be given to \"ConstLine Parameter File\".",
                 "  ERROR-DETAIL:You should check the Format of ConstLine Parameter File."}));
        EXPECT_EQ(f.sunk[0][1][0], 6.0);
        EXPECT_EQ(f.sunk[0][1][1], -1.0);
        EXPECT_EQ(f.sunk[1][0][0], -1.0);
    }
    Faces unused = TwoByTwo(1); // a bad rate no face uses does no harm
    EXPECT_TRUE(Sink(Structures(), unused));
}

TEST(ConstLineParam, MismatchedGrids) {
    const ConstLineParam p = Structures();
    Faces f = TwoByTwo(1);
    Grid2d<std::int32_t, 2> shortMap;
    shortMap.Assign(2, 1, 9);
    EXPECT_TRUE(p.MakeWBMap(0, 2, f.ids, shortMap)); // nothing to do
    const Printed map = Capture([&] { return p.MakeWBMap(2, 2, f.ids, shortMap); });
    EXPECT_EQ(map.result, 0);
    EXPECT_EQ(
        map.err,
        Block({"  ERROR-DETAIL:Abnormal action at Making Wave Breaker Map Method.",
               "  ERROR-DETAIL:Construction Line Data and Wave Breaker grids differ in size."}));
    f.topo.Assign(1, 2, 0.0);
    Printed sink;
    EXPECT_FALSE(Sink(p, f, &sink));
    EXPECT_EQ(
        sink.err,
        Block({"  ERROR-DETAIL:Abnormal action at Sinking Wave Breaker Method.",
               "  ERROR-DETAIL:Construction Line Data and Wave Breaker grids differ in size."}));
    EXPECT_EQ(f.sunk[0][0][0], -1.0);
}

} // namespace
