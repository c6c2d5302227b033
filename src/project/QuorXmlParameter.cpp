#include "project/QuorXmlParameter.hpp"

#include "project/Console.hpp"

#include <climits>
#include <cmath>
#include <utility>

namespace {

// The integer a C cast gives on x86 for every double, including those outside int's range
// and NaN (both give INT_MIN there), without the undefined behaviour of the cast itself.
long long TruncatedKey(double value) {
    if (!(value > static_cast<double>(INT_MIN) - 1.0 && value < static_cast<double>(INT_MAX) + 1.0))
        return INT_MIN;
    return static_cast<long long>(value);
}

bool IsSwitchOn(int value) { return value == 1; }

} // namespace

bool LayerKeyDescending::operator()(double a, double b) const {
    return TruncatedKey(a) > TruncatedKey(b);
}

QuorXmlParameter::QuorXmlParameter(std::string xmlFileName)
    : XmlFileName(std::move(xmlFileName)) {}

bool QuorXmlParameter::checkXML() const {
    try {
        if (ProjectName.empty())
            throw 1;
        if (Faults.empty())
            throw 2;
        // Kept: only the first fault's file is required.
        if (Faults.front().FileName.empty())
            throw 3;
        if (!(TotalTime > 0.0))
            throw 4;
        if (!(TimeIncrement > 0.0))
            throw 5;
        // Layers are not validated: rules 6 to 8 exist only as detail lines.
        if (Regions.empty())
            throw 9;
        for (const auto& [regionNo, region] : Regions) {
            if (region.RegionNo < 1)
                throw 10;
            if (region.RegionName.empty())
                throw 11;
            if (region.BaseRegionNo < 0)
                throw 12;
            if (!(region.GridSize > 0.0))
                throw 13;
            if (region.Topography.FileName.empty())
                throw 14;
        }
        const XML_OUTPUTSETTING& out = OutputSetting;
        if ((IsSwitchOn(out.Dump1dWaterHeight) || IsSwitchOn(out.Dump1dTotalDepth) ||
             IsSwitchOn(out.Dump1dWaterDischarge)) &&
            StationPos.empty())
            throw 15;
        if (IsSwitchOn(out.CoastalWaterHeight) || IsSwitchOn(out.CoastalWaterHeightArrivalTime) ||
            IsSwitchOn(out.CoastalRelativeWaterHeight) ||
            IsSwitchOn(out.CoastalRelativeWaterHeightArrivalTime)) {
            if (ExtractPoints.empty())
                throw 16;
            if (IsSwitchOn(out.CoastalWaterHeightArrivalTime) &&
                out.CoastalWaterHeightThreshold.empty())
                throw 17;
            if (IsSwitchOn(out.CoastalRelativeWaterHeightArrivalTime) &&
                out.CoastalRelativeWaterHeightThreshold.empty())
                throw 18;
        }
        if (IsSwitchOn(out.LandInundationArrivalTime) && out.LandInundationThreshold.empty())
            throw 19;
    } catch (int rule) {
        const char* detail = "";
        switch (rule) {
        case 1: detail = "  ERROR-DETAIL:Please set <ProjectName>."; break;
        case 2: detail = "  ERROR-DETAIL:Please set <FaultModel>."; break;
        case 3: detail = "  ERROR-DETAIL:Please set <FaultModel>/<FileName>."; break;
        case 4: detail = "  ERROR-DETAIL:Please set <TotalTime>."; break;
        case 5: detail = "  ERROR-DETAIL:Please set <TimeIncrement>."; break;
        case 6: detail = "  ERROR-DETAIL:Please set <Layer>."; break;
        case 7: detail = "  ERROR-DETAIL:Please set <Layer>/<LayerNo>."; break;
        case 8: detail = "  ERROR-DETAIL:Please set <Layer>/<GridSize>."; break;
        case 9: detail = "  ERROR-DETAIL:Please set <Region>."; break;
        case 10: detail = "  ERROR-DETAIL:Please set <Region>/<RegionNo>."; break;
        case 11: detail = "  ERROR-DETAIL:Please set <Region>/<RegionName>."; break;
        case 12: detail = "  ERROR-DETAIL:Please set <Region>/<BaseRegionNo>."; break;
        case 13: detail = "  ERROR-DETAIL:Please set <Region>/<GridSize>."; break;
        case 14: detail = "  ERROR-DETAIL:Please set <Region>/<Topography>/<FileName>."; break;
        // Kept: "Dumpld" with a lower-case L, as users have always seen it.
        case 15: detail = "  ERROR-DETAIL:Please set <Dumpld>/<StationPos>/<FileName>."; break;
        case 16:
            detail = "  ERROR-DETAIL:Please set <CoastalPoint>/<ExtractPoint>/<FileName>.";
            break;
        case 17:
            detail = "  ERROR-DETAIL:Please set <CoastalPoint>/<WaterHeightArrivalTime>/<ThresholdFileName>.";
            break;
        case 18:
            detail = "  ERROR-DETAIL:Please set <CoastalPoint>/<RelativeWaterHeightArrivalTime>/<ThresholdFileName>.";
            break;
        case 19:
            detail = "  ERROR-DETAIL:Please set <Land>/<InundationArrivalTime>/<ThresholdFileName>.";
            break;
        }
        const std::string where =
            "  ERROR-DETAIL:Abnormal action at Reading XML File : " + XmlFileName;
        if (*detail != '\0')
            PrintErrorBlock({"ERROR:XML OBJECT METHOD", where, detail});
        else
            PrintErrorBlock({"ERROR:XML OBJECT METHOD", where});
        return false;
    }
    return true;
}
