#include "prep/ProjectWriter.hpp"

#include "prep/AtomicFile.hpp"
#include "prep/PrepError.hpp"
#include "prep/ProjectFiles.hpp"
#include "project/Console.hpp"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/LocalFileFormatTarget.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLString.hpp>

#include <memory>

namespace {

using namespace xercesc;

// Xerces must outlive every DOM object: declared first, so it ends last.
struct XercesScope {
    XercesScope() { XMLPlatformUtils::Initialize(); }
    ~XercesScope() { XMLPlatformUtils::Terminate(); }
    XercesScope(const XercesScope&) = delete;
    XercesScope& operator=(const XercesScope&) = delete;
};

// Text in the library's UTF-16, released with it.
class XText {
  public:
    explicit XText(const std::string& text) : text_(XMLString::transcode(text.c_str())) {}
    ~XText() { XMLString::release(&text_); }
    XText(const XText&) = delete;
    XText& operator=(const XText&) = delete;
    const XMLCh* get() const { return text_; }

  private:
    XMLCh* text_;
};

template <class T> struct Releaser {
    void operator()(T* p) const { p->release(); }
};

class Builder {
  public:
    explicit Builder(DOMDocument* document) : document_(document) {}
    DOMElement* Add(DOMElement* parent, const std::string& name) {
        DOMElement* e = document_->createElement(XText(name).get());
        parent->appendChild(e);
        return e;
    }
    DOMElement* Add(DOMElement* parent, const std::string& name, const std::string& text) {
        DOMElement* e = Add(parent, name);
        e->appendChild(document_->createTextNode(XText(text).get()));
        return e;
    }

  private:
    DOMDocument* document_;
};

std::string Number(double v) { return ShortestDecimal(v); }

bool Serialise(const std::string& path, const Plan& plan, const ProjectSettings& s) {
    DOMImplementation* impl = DOMImplementationRegistry::getDOMImplementation(XText("LS").get());
    if (impl == nullptr)
        return false;
    std::unique_ptr<DOMDocument, Releaser<DOMDocument>> document(
        impl->createDocument(nullptr, XText("Project").get(), nullptr));
    Builder b(document.get());
    DOMElement* root = document->getDocumentElement();
    b.Add(root, "ProjectName", plan.name);
    b.Add(root, "DestDir", "Calc");
    b.Add(root, "Datum", std::to_string(s.geographicEpsg));
    DOMElement* calc = b.Add(root, "CalcParameter");
    if (!s.fault.empty()) {
        DOMElement* fault = b.Add(b.Add(calc, "InitialWaveHeightSetting"), "FaultModel");
        b.Add(fault, "EPSG", std::to_string(s.geographicEpsg));
        b.Add(fault, "FileName", s.fault);
    }
    DOMElement* tsunami = b.Add(calc, "TsunamiCalcSetting");
    b.Add(tsunami, "TotalTime", Number(plan.totalTime));
    b.Add(tsunami, "TimeIncrement", Number(s.timeIncrement));
    b.Add(tsunami, "TimeNestingCFLLimit", Number(plan.cfl));
    b.Add(tsunami, "TideWaterLevel", "0");
    for (const PlanRegion& r : plan.regions) {
        DOMElement* region = b.Add(calc, "Region");
        b.Add(region, "RegionNo", std::to_string(r.number));
        b.Add(region, "RegionName", r.name);
        b.Add(region, "BaseRegionNo", std::to_string(r.base));
        b.Add(region, "EPSG", std::to_string(r.epsg));
        b.Add(region, "GridSize", Number(r.spacing));
        b.Add(b.Add(region, "Topography"), "FileName", r.grid);
    }
    if (!s.stations.empty() || !s.coastPoints.empty()) {
        DOMElement* output = b.Add(root, "CalcOutputSetting");
        const auto lists = [&](const char* block, const char* element,
                               const std::vector<std::pair<std::string, int>>& files) {
            if (files.empty())
                return;
            DOMElement* parent = b.Add(output, block);
            for (const auto& [file, epsg] : files) {
                DOMElement* list = b.Add(parent, element);
                b.Add(list, "EPSG", std::to_string(epsg));
                b.Add(list, "FileName", file);
            }
        };
        lists("Dump1d", "StationPos", s.stations);
        lists("CoastalPoint", "ExtractPoint", s.coastPoints);
    }
    std::unique_ptr<DOMLSSerializer, Releaser<DOMLSSerializer>> writer(impl->createLSSerializer());
    DOMConfiguration* config = writer->getDomConfig();
    if (config->canSetParameter(XMLUni::fgDOMWRTFormatPrettyPrint, true))
        config->setParameter(XMLUni::fgDOMWRTFormatPrettyPrint, true);
    std::unique_ptr<DOMLSOutput, Releaser<DOMLSOutput>> output(impl->createLSOutput());
    try {
        LocalFileFormatTarget target(path.c_str());
        output->setByteStream(&target);
        output->setEncoding(XText("UTF-8").get());
        if (!writer->write(document.get(), output.get()))
            return false;
        target.flush();
    } catch (const XMLException&) {
        return false;
    } catch (const DOMException&) {
        return false;
    }
    return true;
}

// What the run read differs from what was meant: the first difference, or "".
std::string Difference(const QuorXmlParameter& read, const Plan& plan, const ProjectSettings& s) {
    if (read.ProjectName != plan.name)
        return "ProjectName";
    if (read.TotalTime != plan.totalTime || read.TimeIncrement != s.timeIncrement ||
        read.TimeNestingCFLLimit != plan.cfl)
        return "TsunamiCalcSetting";
    if (!s.fault.empty() && (read.Faults.size() != 1 || read.Faults[0].FileName != s.fault ||
                             read.Faults[0].EPSG != s.geographicEpsg))
        return "FaultModel";
    if (read.Regions.size() != plan.regions.size())
        return "the number of regions";
    for (const PlanRegion& r : plan.regions) {
        const auto found = read.Regions.find(r.number);
        if (found == read.Regions.end())
            return StringPrintf("region %d", r.number);
        const XML_REGION& x = found->second;
        if (x.RegionName != r.name || x.BaseRegionNo != r.base || x.EPSG != r.epsg ||
            x.GridSize != r.spacing || x.Topography.FileName != r.grid)
            return StringPrintf("region %d", r.number);
    }
    const auto same = [](const std::vector<XML_STATION>& read_,
                         const std::vector<std::pair<std::string, int>>& meant) {
        if (read_.size() != meant.size())
            return false;
        for (std::size_t k = 0; k < meant.size(); ++k)
            if (read_[k].FileName != meant[k].first || read_[k].EPSG != meant[k].second)
                return false;
        return true;
    };
    if (!same(read.StationPos, s.stations))
        return "StationPos";
    if (!same(read.ExtractPoints, s.coastPoints))
        return "ExtractPoint";
    return {};
}

} // namespace

void WriteProjectFile(const std::string& path, const Plan& plan, const ProjectSettings& settings) {
    ReplaceFileAtomically(path, [&](const std::string& temporary) {
        {
            XercesScope xerces;
            if (!Serialise(temporary, plan, settings))
                return false;
        }
        const QuorXmlParameter read = ReadProject(temporary);
        const std::string difference = Difference(read, plan, settings);
        if (!difference.empty())
            throw PrepError("the project written to " + path + " reads back with another " +
                            difference + " than the plan's; nothing was kept");
        return true;
    });
}
