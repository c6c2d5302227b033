#include "prep/ChainDesign.hpp"
#include "prep/NestCommand.hpp"
#include "prep/Plan.hpp"

#include "prep/NestTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

namespace {

TEST(NestChain, Explore) {
    TempDir dir;
    const Coast coast{141.89, 39.27};
    const std::string coarse = (dir.path() / "coarse.tif").string();
    coast.Write(coarse, 0.01, -1.0, -1.0, 1.5, 1.0);
    RasterTerrain terrain(coarse, false);
    ChainRules rules;
    rules.siteLon = coast.lon;
    rules.siteLat = coast.lat;
    rules.interest = {coast.lon - 0.01, coast.lat - 0.01, coast.lon + 0.01, coast.lat + 0.01};
    rules.finest = 30;
    rules.levels = 4;
    const ChainDesign d = DesignChain(rules, terrain);
    std::printf("%s", ChainTable(d.rows).c_str());
    for (auto& n : d.notes) std::printf("note %s\n", n.c_str());
    for (auto& n : d.warnings) std::printf("warn %s\n", n.c_str());
    std::printf("TI %.17g zone %d\n", d.timeIncrement, d.zone);
}

} // namespace
