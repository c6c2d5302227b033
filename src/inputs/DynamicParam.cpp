#include "inputs/DynamicParam.hpp"

#include "inputs/LinePieceReader.hpp"
#include "project/Console.hpp"
#include "project/FilePtr.hpp"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

// Share of a stage [start, start + rise] that falls into the step [time, time + dt].
float StageWeight(const DYNAMIC_PARAM& stage, double time, double dt) {
    const double start = stage.validTime;
    const double end = start + stage.riseTime;
    const double stepEnd = time + dt;
    if (start == 0.0 && end == 0.0)
        return 1.0f; // the instantaneous stage at time 0
    if (time >= end || (start > time && start >= stepEnd))
        return 0.0f;
    const double overlap = std::min(stepEnd, end) - std::max(time, start);
    if (overlap == 0.0)
        return 1.0f;
    if (overlap > 0.0)
        return static_cast<float>(overlap / dt);
    return 0.0f;
}

} // namespace

DynamicParam::DynamicParam() : lastTime(0.0), hasFile(false) {}

DynamicParam::DynamicParam(const XML_DYNAMIC& rec)
    : fileName(rec.FileName), lastTime(0.0), hasFile(!rec.FileName.empty()) {}

int DynamicParam::LoadFile(double endTime) {
    FilePtr file(std::fopen(fileName.c_str(), "r"));
    if (!file)
        return 1;
    lastTime = 0.0;
    LinePieceReader lines(file.get());
    while (lines.Next()) {
        if (lines.IsComment())
            continue;
        const auto& fields = lines.Fields();
        if (fields.size() < 3)
            return 2;
        DYNAMIC_PARAM stage;
        stage.order = FieldInt32(fields[0]);
        stage.validTime = FieldReal(fields[1]);
        stage.riseTime = FieldReal(fields[2]);
        stage.inUse = stage.validTime <= 0.0 || stage.validTime < endTime;
        params.push_back(stage);
    }
    return lines.Failed() ? 1 : 0; // 1: named, but not a file that can be read
}

bool DynamicParam::ReadFile(double endTime) {
    std::printf("\n>>>>>>>>>>>>> Fault Dynamic Parameter Input:\n");
    try {
        if (const int cause = LoadFile(endTime))
            throw cause;
    } catch (int cause) {
        if (cause == 1)
            PrintErrorBlock(
                {"ERROR:DYNAMICPARAM OBJECT METHOD",
                 "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                 "  ERROR-DETAIL:Can not open file.",
                 "  ERROR-DETAIL:Particular attention should be given to \"Dynamic Parameter File\"."});
        else
            PrintErrorBlock(
                {"ERROR:DYNAMICPARAM OBJECT METHOD",
                 "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                 "  ERROR-DETAIL:You should check the Format of Dynamic Parameter File."});
        return false;
    }
    for (const DYNAMIC_PARAM& stage : params) {
        if (!stage.inUse)
            continue;
        std::printf("order       :%d\n", stage.order);
        std::printf(" valid time :%g\n", stage.validTime);
        std::printf(" rise  time :%g\n", stage.riseTime);
    }
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
    return true;
}

bool DynamicParam::SetZero() {
    std::printf("\n>>>>>>>>>>>>> Fault Dynamic Parameter Set Zero:\n");
    params.push_back(DYNAMIC_PARAM{});
    return true;
}

bool DynamicParam::CalcDynamicAct(int /*layerNo*/, int /*regionNo*/, double time, double dt,
                                  std::valarray<float>& source,
                                  std::vector<InstantVal2d>& targets) {
    const std::size_t stages = std::min(params.size(), targets.size());
    for (std::size_t i = 0; i < stages; ++i) {
        const float weight = StageWeight(params[i], time, dt);
        InstantVal2d& target = targets[i];
        if (target.values.empty() && source.size() > 0) {
            target.values.assign(source.size(), 0.0f);
            target.count = static_cast<int>(source.size());
        }
        const std::size_t n = std::min(target.values.size(), source.size());
        for (std::size_t k = 0; k < n; ++k)
            target.values[k] += weight * source[k];
    }
    lastTime = std::max(lastTime, time + dt);
    return true;
}

void DynamicParam::FreeVecMem() { std::vector<DYNAMIC_PARAM>().swap(params); }
