#pragma once

#include "project/XmlRecords.hpp"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <xercesc/util/XercesDefs.hpp>

XERCES_CPP_NAMESPACE_BEGIN
class DOMNode;
XERCES_CPP_NAMESPACE_END

// Orders layers coarsest first by the integer part of their grid size. Sizes that share an
// integer part are equivalent keys and keep document order in the multimap.
// Kept: the truncation is deliberate (90 and 90.5 tie); do not compare the doubles.
struct LayerKeyDescending {
    bool operator()(double a, double b) const;
};

// The whole project description of one run. Built from the XML file name, filled once by
// exeParse, checked once by checkXML, then only read. A plain data holder: the pipeline
// and the writers read the fields directly.
class QuorXmlParameter {
  public:
    explicit QuorXmlParameter(std::string xmlFileName);

    // Parses XmlFileName and echoes every value read to standard output.
    // Returns 0 when the file cannot be parsed ("Miss Parse" or "Xerces-C++ Miss Initialize"
    // on standard error), 1 on success, and 1 or 2 (the number of the inconsistency) after
    // printing the wave-source warning block; callers read any non-zero value as success.
    // Kept: the inconsistency is only a warning and the run goes on.
    [[nodiscard]] int exeParse();

    // Checks the settings without which no run can be made. On the first violation prints
    // the "ERROR:XML OBJECT METHOD" block with its "Please set" line and returns false.
    [[nodiscard]] bool checkXML() const;
    // The test of checkXML alone, printing nothing: 0 when every rule holds, else the
    // number of the first rule violated; checkXMLDetail gives that rule's detail line as
    // checkXML prints it ("" for a rule without one).
    [[nodiscard]] int checkXMLRule() const;
    [[nodiscard]] static const char* checkXMLDetail(int rule);

    // The project part of the two configuration files the calculators read; the regions
    // follow from the driver. Always true: the caller owns the file and its errors.
    bool writeIWHConf(std::FILE* stream) const;
    bool writeCalParam(std::FILE* stream) const;

    int Datum = 3100;
    std::string XmlFileName;
    std::string ProjectName;
    std::string DestDir; // ProjectName + "/" + the <DestDir> text, as read
    double DeformationTolerance = 0.0;
    int HorizontalDeformation = 0;
    int HydraulicFilter = 0;
    std::vector<XML_FAULT> Faults;
    int LinearWaveType = -1;
    double LinearWaveHeight = 0.0;
    double LinearWaveWidth = 1.0;
    double TotalTime = 0.0;
    double TimeIncrement = 0.0;
    double TimeNestingCFLLimit = 0.0;
    double TideWaterLevel = 0.0;
    int RiseUpType = 0;
    double TsunamiLoadingCoefficient = 0.0;
    double FlowVelocityLimit = -1.0;
    double FroudeNumberLimit = 2.0;
    int SpongeBoundary = 1;
    int CalculateControl = 0;
    double ControlThreshold = 0.0;
    double MinDepth = 100.0;
    int MaxIter = 200;
    double ConvergenceValue = 1e-10;
    bool TopographyDeformation = true; // no element sets it
    std::multimap<double, XML_LAYER, LayerKeyDescending> Layers;
    std::map<int, XML_REGION> Regions; // first region of a number wins
    XML_DYNAMIC Dynamic;
    XML_CONSTLINE ConstLine;
    std::vector<XML_STATION> StationPos;
    std::vector<XML_STATION> ExtractPoints;
    XML_OUTPUTSETTING OutputSetting;
    XML_GEOTIFFSETTING GeotiffSetting;
    bool HasInitialWaveHeight = false;
    bool HasFaultModel = false;

    // False: exeParse fills the same fields silently, without the echo on standard output
    // or its messages on standard error, for a program that reports in its own words.
    bool echo = true;

    using Node = XERCES_CPP_NAMESPACE::DOMNode;

    // Walks the parsed document and fills the fields; a null document fills nothing.
    void readParam(const Node* document);

    // When `name` equals `target` exactly, converts the node's text into `out`, echoes
    // "target:raw text" and returns true; otherwise leaves `out` alone and returns false.
    // The value is taken only when the node's first child is text; otherwise (including
    // an empty element) `out` keeps its value and nothing is echoed.
    bool parseTarget(const std::string& name, const Node* node, const char* target,
                     std::string& out);
    bool parseTarget(const std::string& name, const Node* node, const char* target, int& out);
    bool parseTarget(const std::string& name, const Node* node, const char* target,
                     double& out);
    bool parseTarget(const std::string& name, const Node* node, const char* target, bool& out);

  private:
    void readCalcParameter(const Node* node);
    void readInitialWaveHeightSetting(const Node* node);
    void readTsunamiCalcSetting(const Node* node);
    void readLayerSet(const Node* node);
    void readRegion(const Node* node);
    // Names of children it does not know go to `unknown`, as "<path>/<name>".
    void readFileSetting(const Node* node, XML_FILESETTING& setting, const std::string& path,
                         std::vector<std::string>& unknown);
    void readCalcOutputSetting(const Node* node);
    void readStation(const Node* node, std::vector<XML_STATION>& list);
    void readGeotiffSetting(const Node* node);
    int inconsistencyNumber() const;
    // printf to standard output while `echo` is set.
    void Echo(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    // Working records that live across elements on purpose: a <Layer> inherits what the
    // previous <Layer> of its set left, and a <Region> the uniform values of the previous
    // <Region> that its own element does not reset.
    XML_LAYER workLayer;
    XML_REGION workRegion;
    int regionCount = 0;
    int faultCount = 0;
};
