#include "project/QuorXmlParameter.hpp"

#include "project/BoundedMemoryManager.hpp"
#include "project/Console.hpp"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/parsers/DOMLSParserImpl.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/TransService.hpp>
#include <xercesc/util/XMLDOMMsg.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLUni.hpp>
#include <xercesc/validators/DTD/DTDEntityDecl.hpp>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <locale.h>
#include <memory>

#include <sys/stat.h>

using namespace XERCES_CPP_NAMESPACE;

namespace {

// Far more than any project file uses (normally none), far less than an expansion bomb needs.
constexpr XMLSize_t kEntityExpansionLimit = 10000;
// Far beyond what a project file holds (five levels, no attributes). The library's cost
// per element grows with the depth and per attribute with the element's attribute count,
// and reading an element's whole text recurses as deep as it nests: a file nested or
// attributed tens of thousands of times over would take hours or overflow the stack.
constexpr int kMaxElementDepth = 256;
constexpr XMLSize_t kMaxAttributes = 256;

struct ParserReleaser {
    void operator()(DOMLSParser* parser) const { parser->release(); }
};
using ParserPtr = std::unique_ptr<DOMLSParser, ParserReleaser>;

// Keeps the library quiet and remembers whether the document could not be read whole.
class ParseErrorRecorder : public DOMErrorHandler {
  public:
    bool handleError(const DOMError& error) override {
        if (error.getSeverity() == DOMError::DOM_SEVERITY_WARNING)
            return true;
        failed = true;
        return false; // stop at the first error: a damaged project is not read in part
    }
    bool failed = false;
};

// The library's load-and-save parser working in `memory`, stopping with a parse error
// before it builds an element that nests or carries more than the limits allow.
class BoundedParser : public DOMLSParserImpl {
  public:
    explicit BoundedParser(BoundedMemoryManager& memory)
        : DOMLSParserImpl(nullptr, &memory), memory_(memory) {}

    void startElement(const XMLElementDecl& decl, const unsigned int urlId,
                      const XMLCh* const prefix, const RefVectorOf<XMLAttr>& attributes,
                      const XMLSize_t attributeCount, const bool isEmpty,
                      const bool isRoot) override {
        if (depth_ >= kMaxElementDepth || attributeCount > kMaxAttributes)
            throw DOMLSException(DOMLSException::PARSE_ERR, XMLDOMMsg::LSParser_ParsingAborted,
                                 getMemoryManager());
        const int outside = depth_++;
        DOMLSParserImpl::startElement(decl, urlId, prefix, attributes, attributeCount, isEmpty,
                                      isRoot);
        if (isEmpty)
            depth_ = outside; // ended already, whether or not through endElement
    }
    void endElement(const XMLElementDecl& decl, const unsigned int urlId, const bool isRoot,
                    const XMLCh* const prefix) override {
        --depth_;
        DOMLSParserImpl::endElement(decl, urlId, isRoot, prefix);
    }
    // The memory manager charges each expansion for the longest entity it could be.
    void entityDecl(const DTDEntityDecl& decl, const bool isPEDecl, const bool isIgnored) override {
        DOMLSParserImpl::entityDecl(decl, isPEDecl, isIgnored);
        if (!isIgnored)
            memory_.NoteEntity(decl.getValueLen());
    }

  private:
    BoundedMemoryManager& memory_;
    int depth_ = 0;
};

std::string ToLocal(const XMLCh* text) {
    if (text == nullptr)
        return {};
    TranscodeToStr local(text, "UTF-8");
    return std::string(reinterpret_cast<const char*>(local.str()), local.length());
}

std::string NameOf(const DOMNode* node) { return ToLocal(node->getNodeName()); }

// The raw text of an element whose first child is text; false for anything else,
// an element without children included.
bool FirstChildText(const DOMNode* node, std::string& raw) {
    const DOMNode* first = node->getFirstChild();
    if (first == nullptr)
        return false;
    const auto type = first->getNodeType();
    if (type != DOMNode::TEXT_NODE && type != DOMNode::CDATA_SECTION_NODE)
        return false;
    raw = ToLocal(first->getNodeValue());
    return true;
}

// Leading decimal integer as atoi reads it, clamped to int instead of overflowing.
int LeadingInt(const std::string& text) {
    const long value = std::strtol(text.c_str(), nullptr, 10);
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int>(value);
}

// Leading floating-point number with a point as separator whatever the user's locale.
double LeadingDouble(const std::string& text) {
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return strtod_l(text.c_str(), nullptr, cLocale);
}

// What stat says of the project file: whether it is a directory, and its size when it is
// a regular file (0 otherwise: a pipe, a name the library resolves as a URI, a missing file).
struct FileFacts {
    bool directory = false;
    std::size_t size = 0;
};

FileFacts FactsOf(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0)
        return {};
    return {S_ISDIR(info.st_mode),
            S_ISREG(info.st_mode) ? static_cast<std::size_t>(info.st_size) : 0};
}

template <typename Visit> void ForEachElement(const DOMNode* parent, Visit visit) {
    for (const DOMNode* child = parent->getFirstChild(); child != nullptr;
         child = child->getNextSibling()) {
        if (child->getNodeType() == DOMNode::ELEMENT_NODE)
            visit(NameOf(child), child);
    }
}

} // namespace

void QuorXmlParameter::Echo(const char* format, ...) const {
    if (!echo)
        return;
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}

int QuorXmlParameter::exeParse() {
    try {
        XMLPlatformUtils::Initialize();
    } catch (...) {
        if (echo)
            std::fprintf(stderr, "Xerces-C++ Miss Initialize\n");
        return 0;
    }
    bool parsed = false;
    const FileFacts file = FactsOf(XmlFileName);
    // The parser and its tree live in this: made before the parser, it dies after it.
    BoundedMemoryManager memory(BoundedMemoryManager::ForDocument(file.size));
    try {
        // What the "LS" implementation's createLSParser(MODE_SYNCHRONOUS, no schema type)
        // makes, with the nesting, attribute and memory bounds added.
        ParserPtr parser(new BoundedParser(memory));
        ParseErrorRecorder errors;
        // A project file comes from somebody else: it must neither exhaust memory through
        // entity expansion nor pull another file's content into the run.
        SecurityManager security;
        security.setEntityExpansionLimit(kEntityExpansionLimit);
        DOMConfiguration* config = parser->getDomConfig();
        config->setParameter(XMLUni::fgDOMErrorHandler, &errors);
        config->setParameter(XMLUni::fgXercesSecurityManager, &security);
        config->setParameter(XMLUni::fgXercesLoadExternalDTD, false);
        config->setParameter(XMLUni::fgXercesDisableDefaultEntityResolution, true);

        // A directory opens like a file and fails at its first read, where the library
        // loses the reader it was making: it is refused here as the parse would refuse it.
        if (!file.directory) {
            const DOMDocument* document = parser->parseURI(XmlFileName.c_str());
            memory.Lift();
            if (!errors.failed) {
                readParam(document);
                parsed = true;
            }
        }
    } catch (...) {
        // XMLException, DOMException, OutOfMemoryException: all mean the file is unusable.
    }
    XMLPlatformUtils::Terminate();
    if (!parsed) {
        if (echo)
            std::fprintf(stderr, "Miss Parse\n");
        return 0;
    }

    const int problem = inconsistencyNumber();
    if (echo && problem == 1) {
        PrintErrorBlock({"ERROR:XML PARAMETER IS INCONSISTENCY",
                         "  ERROR-DETAIL:You should make a choice between \"setting Ini Wave Heigh\" or setting \"Fault Parameter\"."});
    } else if (echo && problem == 2) {
        PrintErrorBlock({"ERROR:XML PARAMETER IS INCONSISTENCY",
                         "  ERROR-DETAIL:If you want to deform grand, You should make a choice setting \"Fault Parameter\".",
                         "  ERROR-DETAIL:Particular attention should be given to \"TopographyDeformation\"."});
    }
    return problem == 0 ? 1 : problem;
}

int QuorXmlParameter::inconsistencyNumber() const {
    if (HasInitialWaveHeight == HasFaultModel)
        return 1;
    if (TopographyDeformation && !HasFaultModel)
        return 2;
    return 0;
}

bool QuorXmlParameter::parseTarget(const std::string& name, const Node* node, const char* target,
                                   std::string& out) {
    if (name != target)
        return false;
    std::string raw;
    if (FirstChildText(node, raw)) {
        out = raw;
        Echo("%s:%s\n", target, raw.c_str());
    }
    return true;
}

bool QuorXmlParameter::parseTarget(const std::string& name, const Node* node, const char* target,
                                   int& out) {
    if (name != target)
        return false;
    std::string raw;
    if (FirstChildText(node, raw)) {
        out = LeadingInt(raw);
        Echo("%s:%s\n", target, raw.c_str());
    }
    return true;
}

bool QuorXmlParameter::parseTarget(const std::string& name, const Node* node, const char* target,
                                   double& out) {
    if (name != target)
        return false;
    std::string raw;
    if (FirstChildText(node, raw)) {
        out = LeadingDouble(raw);
        Echo("%s:%s\n", target, raw.c_str());
    }
    return true;
}

bool QuorXmlParameter::parseTarget(const std::string& name, const Node* node, const char* target,
                                   bool& out) {
    if (name != target)
        return false;
    std::string raw;
    if (FirstChildText(node, raw)) {
        out = LeadingInt(raw) != 0;
        Echo("%s:%s\n", target, raw.c_str());
    }
    return true;
}

void QuorXmlParameter::readParam(const Node* document) {
    if (document == nullptr)
        return;
    // The root element, whatever its name; a comment or DOCTYPE before it is no root.
    const DOMNode* root = document->getFirstChild();
    while (root != nullptr && root->getNodeType() != DOMNode::ELEMENT_NODE)
        root = root->getNextSibling();
    if (root == nullptr)
        return;

    ForEachElement(root, [this](const std::string& name, const DOMNode* child) {
        // These three take all text inside the element, not only a leading text node.
        const bool hasContent = child->getFirstChild() != nullptr;
        if (name == "ProjectName") {
            if (hasContent) {
                ProjectName = ToLocal(child->getTextContent());
                Echo("ProjectName:%s\n", ProjectName.c_str());
            }
        } else if (name == "DestDir") {
            // Kept: prefixed with the ProjectName read so far, so its place in the file matters.
            if (hasContent) {
                DestDir = ProjectName + "/" + ToLocal(child->getTextContent());
                Echo("DestDir:%s\n", DestDir.c_str());
            }
        } else if (name == "Datum") {
            if (hasContent) {
                Datum = LeadingInt(ToLocal(child->getTextContent()));
                Echo("Datum:%d\n", Datum);
            }
        } else if (name == "CalcParameter") {
            readCalcParameter(child);
        } else if (name == "CalcOutputSetting") {
            readCalcOutputSetting(child);
        } else if (name == "GeotiffSetting") {
            readGeotiffSetting(child);
        }
    });
}

void QuorXmlParameter::readCalcParameter(const Node* node) {
    ForEachElement(node, [this](const std::string& name, const DOMNode* child) {
        if (name == "InitialWaveHeightSetting") {
            readInitialWaveHeightSetting(child);
        } else if (name == "TsunamiCalcSetting") {
            readTsunamiCalcSetting(child);
        } else if (name == "LayerSet") {
            readLayerSet(child);
        } else if (name == "Region") {
            readRegion(child);
        } else if (name == "DynamicDeformationParameter") {
            Echo("\n[[--- %s ---]]\n", "DynamicDeformationParameter");
            ForEachElement(child, [this](const std::string& leaf, const DOMNode* value) {
                parseTarget(leaf, value, "FileName", Dynamic.FileName);
            });
        } else if (name == "ConstructionLineParameter") {
            ForEachElement(child, [this](const std::string& leaf, const DOMNode* value) {
                parseTarget(leaf, value, "FileName", ConstLine.FileName);
            });
        }
    });
}

void QuorXmlParameter::readInitialWaveHeightSetting(const Node* node) {
    Echo("\n[[--- %s ---]]\n", "InitialWaveHeightSetting");
    ForEachElement(node, [this](const std::string& name, const DOMNode* child) {
        if (parseTarget(name, child, "DeformationTolerance", DeformationTolerance) ||
            parseTarget(name, child, "HorizontalDeformation", HorizontalDeformation) ||
            parseTarget(name, child, "HydraulicFilter", HydraulicFilter))
            return;
        if (name == "FaultModel") {
            Echo("\n[[--- FaultModel%d ---]]\n", ++faultCount);
            XML_FAULT fault;
            fault.EPSG = Datum;
            ForEachElement(child, [this, &fault](const std::string& leaf, const DOMNode* value) {
                (parseTarget(leaf, value, "EPSG", fault.EPSG) ||
                       parseTarget(leaf, value, "FileName", fault.FileName));
            });
            if (fault.EPSG == 4326 || fault.EPSG == 4612)
                fault.CoordinateType = 1;
            Faults.push_back(fault);
            HasFaultModel = true;
        } else if (name == "LinearWaveSource") {
            Echo("\n[[--- %s ---]]\n", "LinearWaveSource");
            ForEachElement(child, [this](const std::string& leaf, const DOMNode* value) {
                (parseTarget(leaf, value, "Type", LinearWaveType) ||
                       parseTarget(leaf, value, "Height", LinearWaveHeight) ||
                       parseTarget(leaf, value, "Width", LinearWaveWidth));
            });
        }
    });
}

void QuorXmlParameter::readTsunamiCalcSetting(const Node* node) {
    Echo("\n[[--- %s ---]]\n", "TsunamiCalcSetting");
    ForEachElement(node, [this](const std::string& name, const DOMNode* child) {
        if (parseTarget(name, child, "TotalTime", TotalTime) ||
            parseTarget(name, child, "TimeIncrement", TimeIncrement) ||
            parseTarget(name, child, "TimeNestingCFLLimit", TimeNestingCFLLimit) ||
            parseTarget(name, child, "TideWaterLevel", TideWaterLevel) ||
            parseTarget(name, child, "RiseUpType", RiseUpType) ||
            parseTarget(name, child, "TsunamiLoadingCoefficient", TsunamiLoadingCoefficient) ||
            parseTarget(name, child, "SpongeBoundary", SpongeBoundary) ||
            parseTarget(name, child, "FlowVelocityLimit", FlowVelocityLimit) ||
            parseTarget(name, child, "FroudeNumberLimit", FroudeNumberLimit) ||
            parseTarget(name, child, "CalculateControl", CalculateControl) ||
            parseTarget(name, child, "ControlThreshold", ControlThreshold))
            return;
        if (name == "DispersiveWave") {
            Echo("\n[[--- %s ---]]\n", "DispersiveWave");
            ForEachElement(child, [this](const std::string& leaf, const DOMNode* value) {
                (parseTarget(leaf, value, "MinDepth", MinDepth) ||
                       parseTarget(leaf, value, "MaxIter", MaxIter) ||
                       parseTarget(leaf, value, "ConvergenceValue", ConvergenceValue));
            });
        }
    });
}

void QuorXmlParameter::readLayerSet(const Node* node) {
    Echo("\n[[--- %s ---]]\n", "LayerSet");
    workLayer = XML_LAYER{};
    ForEachElement(node, [this](const std::string& name, const DOMNode* child) {
        if (name != "Layer")
            return;
        // Kept: a <Layer> inherits whatever the previous <Layer> of its set left.
        ForEachElement(child, [this](const std::string& leaf, const DOMNode* value) {
            (parseTarget(leaf, value, "LayerNo", workLayer.LayerNo) ||
                   parseTarget(leaf, value, "GridSize", workLayer.GridSize) ||
                   parseTarget(leaf, value, "TimeIncrementRatio", workLayer.TimeIncrementRatio));
        });
        Layers.emplace(workLayer.GridSize, workLayer); // after its equivalent keys
    });
}

void QuorXmlParameter::readRegion(const Node* node) {
    Echo("\n[[--- Region%d ---]]\n", ++regionCount);
    // Kept: the uniform values of Topography, WaveHeight, ConstructionLineData and LandMap
    // are not reset, so a region that omits them carries the previous region's.
    XML_REGION& region = workRegion;
    region.RegionNo = 0;
    region.RegionName.clear();
    region.BaseRegionNo = -1;
    region.GridSize = 0.0;
    region.EPSG = Datum;
    region.NonLinearTerm = 0;
    region.DispersiveTerm = 0;
    region.Topography.FileName.clear();
    region.RoughnessCoefficient.FileName.clear();
    region.WaveHeight.FileName.clear();
    region.ConstructionLineData.FileName.clear();
    region.LandMap.FileName.clear();
    region.RoughnessCoefficient.UniformValue = 0.025;
    region.UnknownElements.clear();

    ForEachElement(node, [this, &region](const std::string& name, const DOMNode* child) {
        if (parseTarget(name, child, "RegionNo", region.RegionNo) ||
            parseTarget(name, child, "RegionName", region.RegionName) ||
            parseTarget(name, child, "BaseRegionNo", region.BaseRegionNo) ||
            parseTarget(name, child, "EPSG", region.EPSG) ||
            parseTarget(name, child, "GridSize", region.GridSize) ||
            parseTarget(name, child, "NonLinearTerm", region.NonLinearTerm) ||
            parseTarget(name, child, "DispersiveTerm", region.DispersiveTerm))
            return;
        if (name == "Topography") {
            readFileSetting(child, region.Topography, name, region.UnknownElements);
        } else if (name == "RoughnessCoefficient") {
            readFileSetting(child, region.RoughnessCoefficient, name, region.UnknownElements);
        } else if (name == "WaveHeight") {
            HasInitialWaveHeight = true;
            readFileSetting(child, region.WaveHeight, name, region.UnknownElements);
        } else if (name == "ConstructionLineData") {
            readFileSetting(child, region.ConstructionLineData, name, region.UnknownElements);
        } else if (name == "LandMap") {
            readFileSetting(child, region.LandMap, name, region.UnknownElements);
        } else {
            region.UnknownElements.push_back(name);
        }
    });
    Regions.emplace(region.RegionNo, region); // a number already present keeps the first
}

void QuorXmlParameter::readFileSetting(const Node* node, XML_FILESETTING& setting,
                                       const std::string& path,
                                       std::vector<std::string>& unknown) {
    ForEachElement(node, [&](const std::string& name, const DOMNode* child) {
        if (!parseTarget(name, child, "FileName", setting.FileName) &&
            !parseTarget(name, child, "UniformValue", setting.UniformValue))
            unknown.push_back(path + "/" + name);
    });
}

void QuorXmlParameter::readStation(const Node* node, std::vector<XML_STATION>& list) {
    XML_STATION station;
    station.EPSG = Datum;
    ForEachElement(node, [this, &station](const std::string& name, const DOMNode* child) {
        (parseTarget(name, child, "EPSG", station.EPSG) ||
               parseTarget(name, child, "FileName", station.FileName));
    });
    list.push_back(station);
}

namespace {

// An output element such as <WaterHeight>: its <Output> switch and, for the arrival-time
// outputs, the threshold file.
template <typename Reader>
void ReadOutput(Reader& reader, const DOMNode* node, int& output,
                std::string* threshold = nullptr) {
    ForEachElement(node, [&](const std::string& name, const DOMNode* child) {
        if (!reader.parseTarget(name, child, "Output", output) && threshold != nullptr)
            (void)reader.parseTarget(name, child, "ThresholdFileName", *threshold);
    });
}

} // namespace

void QuorXmlParameter::readCalcOutputSetting(const Node* node) {
    XML_OUTPUTSETTING& out = OutputSetting;
    ForEachElement(node, [this, &out](const std::string& name, const DOMNode* child) {
        if (parseTarget(name, child, "OutputStartTime", out.OutputStartTime))
            return;
        if (name == "Dump1d") {
            Echo("\n[[--- %s ---]]\n", "Dump1d");
            ForEachElement(child, [this, &out](const std::string& leaf, const DOMNode* value) {
                if (parseTarget(leaf, value, "Interval", out.Dump1dInterval) ||
                    parseTarget(leaf, value, "Buffering", out.Buffering) ||
                    parseTarget(leaf, value, "Monolithic", out.Monolithic))
                    return;
                if (leaf == "StationPos")
                    readStation(value, StationPos);
                else if (leaf == "WaterHeight")
                    ReadOutput(*this, value, out.Dump1dWaterHeight);
                else if (leaf == "TotalDepth")
                    ReadOutput(*this, value, out.Dump1dTotalDepth);
                else if (leaf == "WaterDischarge")
                    ReadOutput(*this, value, out.Dump1dWaterDischarge);
            });
        } else if (name == "Dump2d") {
            Echo("\n[[--- %s ---]]\n", "Dump2d");
            ForEachElement(child, [this, &out](const std::string& leaf, const DOMNode* value) {
                if (parseTarget(leaf, value, "Interval", out.Dump2dInterval))
                    return;
                if (leaf == "WaterHeight")
                    ReadOutput(*this, value, out.Dump2dWaterHeight);
                else if (leaf == "WaterDischarge")
                    ReadOutput(*this, value, out.Dump2dWaterDischarge);
            });
        } else if (name == "CoastalPoint") {
            Echo("\n[[--- %s ---]]\n", "CoastalPoint");
            ForEachElement(child, [this, &out](const std::string& leaf, const DOMNode* value) {
                if (parseTarget(leaf, value, "Interval", out.CoastalInterval))
                    return;
                if (leaf == "ExtractPoint")
                    readStation(value, ExtractPoints);
                else if (leaf == "WaterHeight")
                    ReadOutput(*this, value, out.CoastalWaterHeight);
                else if (leaf == "WaterHeightArrivalTime")
                    ReadOutput(*this, value, out.CoastalWaterHeightArrivalTime,
                               &out.CoastalWaterHeightThreshold);
                else if (leaf == "RelativeWaterHeight")
                    ReadOutput(*this, value, out.CoastalRelativeWaterHeight);
                else if (leaf == "RelativeWaterHeightArrivalTime")
                    ReadOutput(*this, value, out.CoastalRelativeWaterHeightArrivalTime,
                               &out.CoastalRelativeWaterHeightThreshold);
            });
        } else if (name == "Land") {
            Echo("\n[[--- %s ---]]\n", "Land");
            ForEachElement(child, [this, &out](const std::string& leaf, const DOMNode* value) {
                if (parseTarget(leaf, value, "Interval", out.LandInterval))
                    return;
                if (leaf == "Inundation")
                    ReadOutput(*this, value, out.LandInundation);
                else if (leaf == "InundationArrivalTime")
                    ReadOutput(*this, value, out.LandInundationArrivalTime,
                               &out.LandInundationThreshold);
            });
        }
    });
}

void QuorXmlParameter::readGeotiffSetting(const Node* node) {
    ForEachElement(node, [this](const std::string& name, const DOMNode* child) {
        std::string* colorTable = nullptr;
        if (name == "Topography")
            colorTable = &GeotiffSetting.TopographyColorTable;
        else if (name == "RoughnessCoefficient")
            colorTable = &GeotiffSetting.RoughnessColorTable;
        else if (name == "WaveHeight")
            colorTable = &GeotiffSetting.WaveHeightColorTable;
        if (colorTable == nullptr)
            return;
        Echo("\n[[--- %s ---]]\n", name.c_str());
        ForEachElement(child, [this, colorTable](const std::string& leaf, const DOMNode* value) {
            parseTarget(leaf, value, "FileName", *colorTable);
        });
    });
}
