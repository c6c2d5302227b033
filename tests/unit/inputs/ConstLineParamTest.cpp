#include "inputs/ConstLineParam.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <cmath>

namespace {

const std::string kClass = "ERROR:CONSTLINEPARAM OBJECT METHOD";
const std::string kFrame = "\n>>>>>>>>>>>>> ConstLine Parameter File Input:\n";
const std::string kReading = "Abnormal action at Reading File Method.";
const std::string kFormat = "You should check the Format of ConstLine Parameter File.";
const std::string kAttention =
    "Particular attention should be given to \"ConstLine Parameter File\".";

std::string Read(ConstLineParam& p, const std::string& path) {
    p = ConstLineParam(XML_CONSTLINE{path});
    return Outcome([&] { return p.ReadFile(); });
}

TEST(ConstLineParamReadFile, FieldsCommentsAndDuplicates) {
    TempDir dir;
    ConstLineParam p;
    EXPECT_EQ(Read(p, dir.Write("l.txt", "# id rate kind label\n10 0.25 1 north-wall extra\n"
                                         "11\t1.0\t\t2   harbour\n10 0.75 0 dropped\n"
                                         "3000000000 -0.1 7 last")),
              "1|" + kFrame + "<<<<<<<<<<<<<<<<<< Completed.\n|");
    ASSERT_EQ(p.params.size(), 3u);
    EXPECT_EQ(p.params.at(10).label, "north-wall"); // an identifier's first line wins
    EXPECT_EQ(p.params.at(11).kind, 2);
    EXPECT_EQ(p.params.at(11).label, "harbour\n"); // Kept: the newline ends the label
    // No range check while reading; identifiers keep their low 32 bits.
    EXPECT_EQ(p.params.at(static_cast<int>(3000000000LL - (1LL << 32))).sinkRate, -0.1);
}

// The piece rules every side file reader shares, pinned here once.
TEST(ConstLineParamReadFile, FormatErrorsLinePiecesAndUnreadableFiles) {
    TempDir dir;
    ConstLineParam p;
    // Fewer than four fields; a blank line is one field, "\n"; blanks only are none.
    for (const char* text : {"1 0.5 0\n", "1 0.5 0 a\n\n2 0.5 0 b\n", "   \t\n"})
        EXPECT_EQ(Read(p, dir.Write("l.txt", text)),
                  "0|" + kFrame + "|" + ErrorBlock(kClass, {kReading, kFormat}))
            << text;
    ASSERT_EQ(Read(p, dir.Write("l.txt", "1 0.5 0 \n"))[0], '1'); // a blank before the newline
    EXPECT_EQ(p.params.at(1).label, "\n");
    // A line is read in pieces of 1022 characters, each piece a line of its own.
    const std::string first = "1 0.5 0 first" + std::string(1022 - 13, ' ');
    ASSERT_EQ(Read(p, dir.Write("l.txt", first + "7 0.25 2 tail"))[0], '1');
    EXPECT_EQ(p.params.at(1).label + p.params.at(7).label, "firsttail");
    EXPECT_EQ(Read(p, dir.Write("l.txt", "1 0.5 0 " + std::string(1100, 'L') + "\n"))[0], '0');
    EXPECT_EQ(p.params.at(1).label, std::string(1022 - 8, 'L'));
    // Absent, or a directory, which opens but cannot be read.
    for (const std::string& path : {dir.path().string() + "/absent.txt", dir.path().string()})
        EXPECT_EQ(Read(p, path),
                  "0|" + kFrame + "|" +
                      ErrorBlock(kClass, {kReading, "Can not open file.", kAttention}));
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

// Faces of one structure on a ground of 2 below a crest of 6.
struct Faces {
    Grid2d<double, 2> heights, sunk;
    Grid2d<std::int32_t, 2> ids, map;
    Grid2d<double> topo;
    explicit Faces(std::int32_t id, int nx = 1, int ny = 1) {
        heights.Assign(nx, ny, 6.0);
        sunk.Assign(nx, ny, -1.0);
        ids.Assign(nx, ny, id);
        map.Assign(nx, ny, -7);
        topo.Assign(nx, ny, 2.0);
    }
    std::string Sink(const ConstLineParam& p) {
        const int nx = ids.Columns(), ny = ids.Rows();
        return Outcome([&] { return p.SinkWB(nx, ny, 123.0, heights, ids, topo, sunk); });
    }
};

TEST(ConstLineParam, ClassAndSunkCrestPerStructure) {
    // Map class: 100, 1, 2 by kind; 0 for sunk, unlisted and none; kind 3 keeps what was
    // there; a rate beyond 1 is classed by its kind. The crest sinks toward the ground by
    // the rate; an unlisted structure stands, none is 0.0.
    const std::tuple<std::int32_t, std::int32_t, double> rows[] = {
        {1, 100, 6.0}, {2, 1, 4.0}, {3, 2, 6.0},   {4, 0, 2.0},
        {5, -7, 5.0},  {6, 1, -1},  {99, 0, 6.0}, {0, 0, 0.0}};
    for (const auto& [id, map, crest] : rows) {
        Faces f(id);
        EXPECT_EQ(Outcome([&] { return Structures().MakeWBMap(1, 1, f.ids, f.map); }), "1||");
        EXPECT_EQ(f.map[0][0][0], map) << id;
        if (id != 6) {
            EXPECT_EQ(f.Sink(Structures()), "1||") << id;
            EXPECT_EQ(f.sunk[0][0][1], crest) << id;
        }
    }
    // The ground is the higher of the face's two cells, along j (k = 0) and i (k = 1).
    for (int k : {0, 1}) {
        Faces two(2, 1 + k, 2 - k);
        two.topo[k][1 - k] = 4.0;
        ASSERT_EQ(two.Sink(Structures()), "1||");
        EXPECT_EQ(two.sunk[0][0][k], 5.0) << k;
        EXPECT_EQ(two.sunk[0][0][1 - k], 4.0) << k;
    }
    // A face without a structure is +0.0 whatever it held, -0.0 included.
    Faces none(0);
    none.sunk.Assign(1, 1, -0.0);
    ASSERT_EQ(none.Sink(Structures()), "1||");
    EXPECT_FALSE(std::signbit(none.sunk[0][0][0]));
    EXPECT_FALSE(std::signbit(none.sunk[0][0][1]));
}

TEST(ConstLineParam, RateOutOfRangeAndMismatchedGrids) {
    for (double rate : {-0.1, 1.0000001}) {
        ConstLineParam p = Structures();
        p.params[6].sinkRate = rate;
        // Faces go i outer, j inner: those before the bad one are done, (1, 0) after it
        // is untouched although it comes first in storage order.
        Faces f(1, 2, 2);
        f.ids[0][1][0] = 6;
        EXPECT_EQ(f.Sink(p), "0||" + ErrorBlock(kClass, {"Abnormal action at SinkRate().",
                                                         kAttention, kFormat}));
        EXPECT_EQ(f.sunk[0][0][1], 6.0);
        EXPECT_EQ(f.sunk[1][0][1], -1.0);
    }
    const std::string differ = "Construction Line Data and Wave Breaker grids differ in size.";
    Faces f(1, 2);
    f.map.Assign(1, 1, 0);
    EXPECT_EQ(Outcome([&] { return Structures().MakeWBMap(2, 1, f.ids, f.map); }),
              "0||" + ErrorBlock(kClass, {"Abnormal action at Making Wave Breaker Map Method.",
                                          differ}));
    f.topo.Assign(1, 1, 0.0);
    EXPECT_EQ(f.Sink(Structures()),
              "0||" + ErrorBlock(kClass, {"Abnormal action at Sinking Wave Breaker Method.",
                                          differ}));
}

} // namespace
