#pragma once

#include "project/QuorXmlParameter.hpp"
#include "region/Region.hpp"

#include <cstdint>
#include <string>

// A project and its files as the run reads them, without the run's console.

// The project file read with the run's reader, without its echo. Throws PrepError when
// the file is missing or the run could not parse it ("Miss Parse").
[[nodiscard]] QuorXmlParameter ReadProject(const std::string& path);

// Codes the run reads as longitude and latitude in degrees; every other code is metres.
[[nodiscard]] inline bool IsGeographic(int epsg) { return epsg == 4326 || epsg == 4612; }

// "region 2 (Bay)": how every command names a region.
[[nodiscard]] std::string RegionLabel(const XML_REGION& region);

// One grid of a region read with the run's reader: `why` is empty when it was read, else
// one phrase in the user's words ("cannot open Bay.bin", "Bay.txt holds 5 values where its
// header announces 3 x 2", ...).
[[nodiscard]] Region ReadRegionGrid(RType kind, const XML_REGION& region, std::string& why);
