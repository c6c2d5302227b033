#include "region/Region.hpp"

#include "inputs/DynamicParam.hpp"
#include "project/Console.hpp"
#include "project/FilePtr.hpp"

#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <vector>

namespace {

// Whole seconds of a stage's valid time, truncated toward zero as the stage file names
// have always shown them; times beyond the int range are held at its ends.
int WholeSeconds(double seconds) {
    if (std::isnan(seconds))
        return 0;
    if (seconds >= 2147483647.0)
        return std::numeric_limits<int>::max();
    if (seconds <= -2147483648.0)
        return std::numeric_limits<int>::min();
    return static_cast<int>(seconds);
}

} // namespace

bool Region::SetDynamic(std::string dir, DynamicParam param, int deformationEpsg) {
    if (deformationEpsg != epsg) {
        // Only regions in the deformation's coordinate system carry a series; the others
        // must not name one in the configuration files.
        outFileName.clear();
        return true;
    }
    std::printf("\n");
    const std::string tag = typeTag.substr(0, 3);
    std::vector<std::string> stageFiles;
    stageFiles.reserve(param.params.size());
    for (const DYNAMIC_PARAM& stage : param.params) {
        // Kept: two stages in the same whole second share a name.
        stageFiles.push_back(StringPrintf("%s/%s_%s_%04ds.bin", dir.c_str(), tag.c_str(),
                                          regionName.c_str(), WholeSeconds(stage.validTime)));
        std::printf(">>>>>>>>>>>>>>>>>> Set File Name:%s\n", stageFiles.back().c_str());
    }
    outFileName = StringPrintf("%s/%s_%s.txt", dir.c_str(), tag.c_str(), regionName.c_str());
    std::printf("%s\n", outFileName.c_str());
    try {
        FilePtr file(std::fopen(outFileName.c_str(), "w"));
        if (!file)
            throw 1;
        for (std::size_t i = 0; i < stageFiles.size(); ++i)
            std::fprintf(file.get(), "%-16f%-16f%s\n", param.params[i].validTime,
                         param.params[i].riseTime, stageFiles[i].c_str());
        // The index is what the calculator follows; one that did not reach the disk in
        // full is reported as one that could not be opened.
        if (std::ferror(file.get()) != 0 || std::fclose(file.release()) != 0)
            throw 1;
    } catch (int) { // 1: the index cannot be created or written in full
        PrintErrorBlock(
            {"ERROR:REGION OBJECT METHOD",
             "  ERROR-DETAIL:Abnormal action at Writing BIN File Method.",
             "  ERROR-DETAIL:Can not open file.",
             "  ERROR-DETAIL:Particular attention should be given to \"Region BIN File\".",
             "  ERROR-DETAIL:Region BIN File > " + std::to_string(type)});
        return false;
    }
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
    return true;
}
