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

int QuorXmlParameter::checkXMLRule() const {
    if (ProjectName.empty())
        return 1;
    if (Faults.empty())
        return 2;
    // Kept: only the first fault's file is required.
    if (Faults.front().FileName.empty())
        return 3;
    if (!(TotalTime > 0.0))
        return 4;
    if (!(TimeIncrement > 0.0))
        return 5;
    // Layers are not validated: rules 6 to 8 exist only as detail lines.
    if (Regions.empty())
        return 9;
    for (const auto& [regionNo, region] : Regions) {
        if (region.RegionNo < 1)
            return 10;
        if (region.RegionName.empty())
            return 11;
        if (region.BaseRegionNo < 0)
            return 12;
        if (!(region.GridSize > 0.0))
            return 13;
        if (region.Topography.FileName.empty())
            return 14;
    }
    const XML_OUTPUTSETTING& out = OutputSetting;
    if ((IsSwitchOn(out.Dump1dWaterHeight) || IsSwitchOn(out.Dump1dTotalDepth) ||
         IsSwitchOn(out.Dump1dWaterDischarge)) &&
        StationPos.empty())
        return 15;
    if (IsSwitchOn(out.CoastalWaterHeight) || IsSwitchOn(out.CoastalWaterHeightArrivalTime) ||
        IsSwitchOn(out.CoastalRelativeWaterHeight) ||
        IsSwitchOn(out.CoastalRelativeWaterHeightArrivalTime)) {
        if (ExtractPoints.empty())
            return 16;
        if (IsSwitchOn(out.CoastalWaterHeightArrivalTime) &&
            out.CoastalWaterHeightThreshold.empty())
            return 17;
        if (IsSwitchOn(out.CoastalRelativeWaterHeightArrivalTime) &&
            out.CoastalRelativeWaterHeightThreshold.empty())
            return 18;
    }
    if (IsSwitchOn(out.LandInundationArrivalTime) && out.LandInundationThreshold.empty())
        return 19;
    return 0;
}

const char* QuorXmlParameter::checkXMLDetail(int rule) {
    switch (rule) {
    case 1: return "  ERROR-DETAIL:Please set <ProjectName>.";
    case 2: return "  ERROR-DETAIL:Please set <FaultModel>.";
    case 3: return "  ERROR-DETAIL:Please set <FaultModel>/<FileName>.";
    case 4: return "  ERROR-DETAIL:Please set <TotalTime>.";
    case 5: return "  ERROR-DETAIL:Please set <TimeIncrement>.";
    case 6: return "  ERROR-DETAIL:Please set <Layer>.";
    case 7: return "  ERROR-DETAIL:Please set <Layer>/<LayerNo>.";
    case 8: return "  ERROR-DETAIL:Please set <Layer>/<GridSize>.";
    case 9: return "  ERROR-DETAIL:Please set <Region>.";
    case 10: return "  ERROR-DETAIL:Please set <Region>/<RegionNo>.";
    case 11: return "  ERROR-DETAIL:Please set <Region>/<RegionName>.";
    case 12: return "  ERROR-DETAIL:Please set <Region>/<BaseRegionNo>.";
    case 13: return "  ERROR-DETAIL:Please set <Region>/<GridSize>.";
    case 14: return "  ERROR-DETAIL:Please set <Region>/<Topography>/<FileName>.";
    // Kept: "Dumpld" with a lower-case L, as users have always seen it.
    case 15: return "  ERROR-DETAIL:Please set <Dumpld>/<StationPos>/<FileName>.";
    case 16:
        return "  ERROR-DETAIL:Please set <CoastalPoint>/<ExtractPoint>/<FileName>.";
    case 17:
        return "  ERROR-DETAIL:Please set <CoastalPoint>/<WaterHeightArrivalTime>/<ThresholdFileName>.";
    case 18:
        return "  ERROR-DETAIL:Please set <CoastalPoint>/<RelativeWaterHeightArrivalTime>/<ThresholdFileName>.";
    case 19:
        return "  ERROR-DETAIL:Please set <Land>/<InundationArrivalTime>/<ThresholdFileName>.";
    }
    return "";
}

bool QuorXmlParameter::checkXML() const {
    const int rule = checkXMLRule();
    if (rule == 0)
        return true;
    const char* detail = checkXMLDetail(rule);
    const std::string where = "  ERROR-DETAIL:Abnormal action at Reading XML File : " + XmlFileName;
    if (*detail != '\0')
        PrintErrorBlock({"ERROR:XML OBJECT METHOD", where, detail});
    else
        PrintErrorBlock({"ERROR:XML OBJECT METHOD", where});
    return false;
}
