#include "project/QuorXmlParameter.hpp"

namespace {

// Each setting is a comment line naming it, then its value line.
void WriteComment(std::FILE* stream, const char* comment) { std::fprintf(stream, "%s\n", comment); }

} // namespace

bool QuorXmlParameter::writeIWHConf(std::FILE* stream) const {
    // Validation requires a fault model; should a project still arrive without one, the
    // fault lines keep their place with 0 and an empty name.
    const XML_FAULT noFault{0, 0, ""};
    const XML_FAULT& fault = Faults.empty() ? noFault : Faults.front();

    WriteComment(stream, "# Project Name");
    std::fprintf(stream, "%s\n", ProjectName.c_str());
    WriteComment(stream, "# Dest Directory");
    std::fprintf(stream, "%s\n", DestDir.c_str());
    WriteComment(stream, "# Deformation Tolerance");
    std::fprintf(stream, "%.6lf\n", DeformationTolerance);
    // Kept: "Hrizontal" is part of the format the calculator reads.
    WriteComment(stream, "# Hrizontal Deformation");
    std::fprintf(stream, "%d\n", HorizontalDeformation);
    WriteComment(stream, "# Hydraulic Filter");
    std::fprintf(stream, "%d\n", HydraulicFilter);
    WriteComment(stream, "# Fault Coordinate Type (0:Cartesian, 1:Latitude-Longitude)");
    std::fprintf(stream, "%d\n", fault.CoordinateType);
    WriteComment(stream, "# Fault Parameter File");
    std::fprintf(stream, "%s\n", fault.FileName.c_str());
    WriteComment(stream, "# Linear Wave Type (0:Rectangular, 1:sin wave)");
    std::fprintf(stream, "%d\n", LinearWaveType);
    WriteComment(stream, "# Linear Wave Height[m]");
    std::fprintf(stream, "%.6lf\n", LinearWaveHeight);
    WriteComment(stream, "# Linear Wave Width");
    std::fprintf(stream, "%.6lf\n", LinearWaveWidth);
    WriteComment(stream, "# Total Region Number");
    std::fprintf(stream, "%d\n", static_cast<int>(Regions.size()));
    return true;
}

bool QuorXmlParameter::writeCalParam(std::FILE* stream) const {
    const XML_OUTPUTSETTING& out = OutputSetting;
    WriteComment(stream, "# Project Name");
    std::fprintf(stream, "%s\n", ProjectName.c_str());
    WriteComment(stream, "# Total Time[sec]");
    std::fprintf(stream, "%.6lf\n", TotalTime);
    WriteComment(stream, "# Min. Time Increment[sec]");
    std::fprintf(stream, "%.14lf\n", TimeIncrement);
    WriteComment(stream, "# Tide Water Level[cm]");
    std::fprintf(stream, "%.6lf\n", TideWaterLevel);
    WriteComment(stream, "# Rise Up Type (0:First Step 1:Each Time Step)");
    std::fprintf(stream, "%d\n", RiseUpType);
    WriteComment(stream, "# Tsunami Loading Coefficient [-]");
    std::fprintf(stream, "%.4lf\n", TsunamiLoadingCoefficient);
    // The calculator expects the sponge boundary before the velocity limit.
    WriteComment(stream, "# Offshore Sponge Boundary (0:Transparent boundary 1:Sponge Boundary)");
    std::fprintf(stream, "%d\n", SpongeBoundary);
    WriteComment(stream, "# Flow Velocity Limit [m/s]");
    std::fprintf(stream, "%.4lf\n", FlowVelocityLimit);
    WriteComment(stream, "# Froude Number Limit [-]");
    std::fprintf(stream, "%.4lf\n", FroudeNumberLimit);
    WriteComment(stream, "# Calculating Control (1:Not calculate until max|Z| > Zth for the first time)");
    std::fprintf(stream, "%d\n", CalculateControl);
    WriteComment(stream, "# Control Threshold of Water Level [m]");
    std::fprintf(stream, "%.6lf\n", ControlThreshold);
    // Kept: any non-zero 1D switch names the best-point file here, although only 1
    // switches the output itself on.
    WriteComment(stream, "# 1D Station File Name");
    if (out.Dump1dWaterHeight != 0 || out.Dump1dTotalDepth != 0 || out.Dump1dWaterDischarge != 0)
        std::fprintf(stream, "%s/Dump1d_BEST.txt\n", DestDir.c_str());
    else
        std::fprintf(stream, "\n");
    WriteComment(stream, "# 1D Output Setting (1:Monolithic)");
    std::fprintf(stream, "%d\n", out.Monolithic);
    WriteComment(stream, "# 1D Water Height Output Setting");
    std::fprintf(stream, "%d %.3lf %.3lf\n", out.Dump1dWaterHeight, out.OutputStartTime,
                 out.Dump1dInterval);
    WriteComment(stream, "# 1D Total Depth Output Setting");
    std::fprintf(stream, "%d %.3lf %.3lf\n", out.Dump1dTotalDepth, out.OutputStartTime,
                 out.Dump1dInterval);
    WriteComment(stream, "# 1D Water Discharge Output Setting");
    std::fprintf(stream, "%d %.3lf %.3lf\n", out.Dump1dWaterDischarge, out.OutputStartTime,
                 out.Dump1dInterval);
    WriteComment(stream, "# 2D Water Height Output Setting");
    std::fprintf(stream, "%d %.3lf %.3lf\n", out.Dump2dWaterHeight, out.OutputStartTime,
                 out.Dump2dInterval);
    WriteComment(stream, "# 2D Water Discharge Output Setting");
    std::fprintf(stream, "%d %.3lf %.3lf\n", out.Dump2dWaterDischarge, out.OutputStartTime,
                 out.Dump2dInterval);
    WriteComment(stream, "# Coastal Height Output Setting");
    std::fprintf(stream, "%d %.3lf %.3lf\n", out.CoastalWaterHeight, out.OutputStartTime,
                 out.CoastalInterval);
    WriteComment(stream, "# Coastal Height Arrival Time Output Setting");
    std::fprintf(stream, "%d %s\n", out.CoastalWaterHeightArrivalTime,
                 out.CoastalWaterHeightThreshold.c_str());
    WriteComment(stream, "# Coastal Relative Height Output Setting");
    std::fprintf(stream, "%d %.3lf %.3lf\n", out.CoastalRelativeWaterHeight, out.OutputStartTime,
                 out.CoastalInterval);
    WriteComment(stream, "# Coastal Relative Height Arrival Time Output Setting");
    std::fprintf(stream, "%d %s\n", out.CoastalRelativeWaterHeightArrivalTime,
                 out.CoastalRelativeWaterHeightThreshold.c_str());
    WriteComment(stream, "# Land Inundation Output Setting");
    std::fprintf(stream, "%d %.3lf %.3lf\n", out.LandInundation, out.OutputStartTime,
                 out.LandInterval);
    WriteComment(stream, "# Land Inundation Arrival Time Output Setting");
    std::fprintf(stream, "%d %s\n", out.LandInundationArrivalTime,
                 out.LandInundationThreshold.c_str());
    WriteComment(stream, "# Total Region Number");
    std::fprintf(stream, "%d\n", static_cast<int>(Regions.size()));
    return true;
}
