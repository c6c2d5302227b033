#include "region/Region.hpp"

namespace {

void WritePair(std::FILE* stream, const char* comment, const std::string& value) {
    std::fprintf(stream, "%s\n%s\n", comment, value.c_str());
}

void WritePair(std::FILE* stream, const char* comment, int value) {
    std::fprintf(stream, "%s\n%d\n", comment, value);
}

} // namespace

bool Region::WriteIWHConf(std::FILE* stream) const {
    if (type != TPG_R)
        return true;
    WritePair(stream, "# Region No.", regionNo);
    WritePair(stream, "# Region Name", regionName);
    WritePair(stream, "# Base Region No.", baseRegionNo);
    WritePair(stream, "# Region Coordinate Type (0:Cartesian, 1:Latitude-Longitude)", coordType);
    WritePair(stream, "# Region Topography File Name", outFileName);
    return true;
}

bool Region::WriteCalParam(std::FILE* stream) const {
    switch (type) {
    case TPG_R:
        WritePair(stream, "# Region No.", regionNo);
        WritePair(stream, "# Region Name", regionName);
        WritePair(stream, "# Base Region No.", baseRegionNo);
        WritePair(stream, "# Time Step Ratio", stepRatio);
        WritePair(stream, "# EPSG", epsg);
        WritePair(stream, "# Non-Linear Term (1:Calculate Non-linear long wave term.)", nonLinear);
        WritePair(stream, "# Coastal Extract Points File Name", extFileName);
        WritePair(stream, "# Topography File Name", outFileName);
        break;
    case RCF_R:
        WritePair(stream, "# Roughness Coefficient File Name", outFileName);
        break;
    case WBM_R:
        WritePair(stream, "# Wave Breaker Map File Name", outFileName);
        break;
    case WBH_R:
        WritePair(stream, "# Wave Breaker Height File Name", outFileName);
        break;
    case LSM_R:
        WritePair(stream, "# Land Map File Name", outFileName);
        break;
    case VRT_R:
        WritePair(stream, "# Vertical Deformation File List", outFileName);
        break;
    case IWH_R:
        WritePair(stream, "# Initial Wave Height File List", outFileName);
        break;
    default: // construction-line data and horizontal deformation reach no calculator here
        break;
    }
    return true;
}
