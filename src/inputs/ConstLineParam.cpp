#include "inputs/ConstLineParam.hpp"

#include "inputs/LinePieceReader.hpp"
#include "project/Console.hpp"
#include "project/FilePtr.hpp"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace {

void PrintShapeError(const char* headline) {
    PrintErrorBlock(
        {"ERROR:CONSTLINEPARAM OBJECT METHOD", headline,
         "  ERROR-DETAIL:Construction Line Data and Wave Breaker grids differ in size."});
}

// Sets a face without a structure to 0.0, writing only a face that holds anything else
// (-0.0 included): the heights come as zeros that the system has not yet given pages for.
void ClearFace(double& face) {
    if (std::bit_cast<std::uint64_t>(face) != 0)
        face = 0.0;
}

} // namespace

ConstLineParam::ConstLineParam() : noFile(true) {}

ConstLineParam::ConstLineParam(const XML_CONSTLINE& rec)
    : fileName(rec.FileName), noFile(rec.FileName.empty()) {}

ConstLineParam::~ConstLineParam() = default;

int ConstLineParam::LoadFile() {
    FilePtr file(std::fopen(fileName.c_str(), "r"));
    if (!file)
        return 1;
    LinePieceReader lines(file.get());
    while (lines.Next()) {
        if (lines.IsComment())
            continue;
        const auto& fields = lines.Fields();
        if (fields.size() < 4)
            return 2;
        CONSTLINE_PARAM param;
        param.sinkRate = FieldReal(fields[1]);
        param.kind = FieldInt32(fields[2]);
        param.label = fields[3];
        // An identifier listed twice keeps its first line.
        params.emplace(FieldInt32(fields[0]), std::move(param));
    }
    return lines.Failed() ? 1 : 0; // 1: named, but not a file that can be read
}

bool ConstLineParam::ReadFile() {
    std::printf("\n>>>>>>>>>>>>> ConstLine Parameter File Input:\n");
    try {
        if (const int cause = LoadFile())
            throw cause;
    } catch (int cause) {
        if (cause == 1)
            PrintErrorBlock(
                {"ERROR:CONSTLINEPARAM OBJECT METHOD",
                 "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                 "  ERROR-DETAIL:Can not open file.",
                 "  ERROR-DETAIL:Particular attention should be given to \"ConstLine Parameter File\"."});
        else
            PrintErrorBlock(
                {"ERROR:CONSTLINEPARAM OBJECT METHOD",
                 "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                 "  ERROR-DETAIL:You should check the Format of ConstLine Parameter File."});
        return false;
    }
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
    return true;
}

bool ConstLineParam::MakeWBMap(int nx, int ny, const Grid2d<std::int32_t, 2>& ids,
                               Grid2d<std::int32_t, 2>& map) const {
    if (nx < 1 || ny < 1)
        return true;
    if (!ids.HasShape(nx, ny) || !map.HasShape(nx, ny)) {
        PrintShapeError("  ERROR-DETAIL:Abnormal action at Making Wave Breaker Map Method.");
        return false;
    }
    // Every face is set on its own, so the faces go in storage order; runs of one
    // structure share its lookup.
    constexpr std::int32_t kKeep = -1;
    const auto codeOf = [this](std::int32_t id) -> std::int32_t {
        const auto param = params.find(id);
        if (id == 0 || param == params.end() || param->second.sinkRate == 1.0)
            return 0;
        switch (param->second.kind) {
        case 0:
            return 100;
        case 1:
            return 1;
        case 2:
            return 2;
        default:
            // Kept: an unknown kind leaves whatever the face held.
            return kKeep;
        }
    };
    const std::int32_t* id = ids.Data();
    std::int32_t* face = map.Data();
    const std::size_t faces = map.ValueCount();
    std::int32_t lastId = 0;
    std::int32_t lastCode = 0;
    // A face that already holds its code is left unwritten: the map comes as zeros that
    // the system has not yet given pages for, and most faces hold no structure.
    for (std::size_t f = 0; f < faces; ++f) {
        if (id[f] != lastId) {
            lastId = id[f];
            lastCode = codeOf(lastId);
        }
        if (lastCode != kKeep && face[f] != lastCode)
            face[f] = lastCode;
    }
    return true;
}

bool ConstLineParam::SinkWB(int nx, int ny, double /*tideLevel*/, const Grid2d<double, 2>& heights,
                            const Grid2d<std::int32_t, 2>& ids, const Grid2d<double>& topo,
                            Grid2d<double, 2>& sunk) const {
    if (nx < 1 || ny < 1)
        return true;
    if (!heights.HasShape(nx, ny) || !ids.HasShape(nx, ny) || !topo.HasShape(nx, ny) ||
        !sunk.HasShape(nx, ny)) {
        PrintShapeError("  ERROR-DETAIL:Abnormal action at Sinking Wave Breaker Method.");
        return false;
    }
    // The rate of the structure on a face; throws 1 for a rate outside [0, 1].
    const auto rateOf = [this](std::int32_t id) {
        const auto param = params.find(id);
        const double rate = param != params.end() ? param->second.sinkRate : 0.0;
        if (rate < 0.0 || rate > 1.0)
            throw 1;
        return rate;
    };
    // A structure on a face sinks toward the higher of the two cells it separates; the
    // outermost faces have only their own cell.
    const auto sinkFace = [&](int i, int j, int k, double rate) {
        double ground = topo[i][j];
        if (k == 0 && j < ny - 1 && topo[i][j + 1] > ground)
            ground = topo[i][j + 1];
        if (k == 1 && i < nx - 1 && topo[i + 1][j] > ground)
            ground = topo[i + 1][j];
        sunk[i][j][k] = ground + (heights[i][j][k] - ground) * (1.0 - rate);
    };
    const bool allRatesValid =
        std::all_of(params.begin(), params.end(), [](const auto& entry) {
            return !(entry.second.sinkRate < 0.0 || entry.second.sinkRate > 1.0);
        });
    try {
        if (allRatesValid) {
            // No face can fail, so the faces go in storage order; each is set on its own.
            for (int j = 0; j < ny; ++j) {
                for (int i = 0; i < nx; ++i) {
                    for (int k = 0; k < 2; ++k) {
                        const std::int32_t id = ids(i, j)[k];
                        if (id == 0)
                            ClearFace(sunk(i, j)[k]);
                        else
                            sinkFace(i, j, k, rateOf(id));
                    }
                }
            }
        } else {
            // Kept: a bad rate stops at its face, the faces before it in this order done.
            for (int i = 0; i < nx; ++i) {
                for (int j = 0; j < ny; ++j) {
                    for (int k = 0; k < 2; ++k) {
                        const std::int32_t id = ids[i][j][k];
                        if (id == 0)
                            ClearFace(sunk[i][j][k]);
                        else
                            sinkFace(i, j, k, rateOf(id));
                    }
                }
            }
        }
    } catch (int) { // 1: a sink rate outside [0, 1]
        PrintErrorBlock(
            {"ERROR:CONSTLINEPARAM OBJECT METHOD", "  ERROR-DETAIL:Abnormal action at SinkRate().",
             "  ERROR-DETAIL:Particular attention should be given to \"ConstLine Parameter File\".",
             "  ERROR-DETAIL:You should check the Format of ConstLine Parameter File."});
        return false;
    }
    return true;
}
