#include "prep/ProjectFiles.hpp"

#include "prep/PrepError.hpp"
#include "project/Console.hpp"

#include <cinttypes>

#include <sys/stat.h>

QuorXmlParameter ReadProject(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0)
        throw PrepError("cannot open the project file " + path);
    QuorXmlParameter project(path);
    project.echo = false;
    if (project.exeParse() == 0)
        throw PrepError(path + " is not a project file the run can read (it is not well-formed "
                               "XML, or it cannot be read); the run stops there with \"Miss Parse\"");
    return project;
}

std::string RegionLabel(const XML_REGION& r) {
    return StringPrintf("region %d (%s)", r.RegionNo, r.RegionName.c_str());
}

Region ReadRegionGrid(RType kind, const XML_REGION& region, std::string& why) {
    Region grid(kind, region);
    why.clear();
    std::int64_t values = 0;
    switch (grid.LoadFile(values)) {
    case 0:
        break;
    case 1:
        why = "cannot open " + grid.inFileName;
        break;
    case 2:
        why = grid.inFileName + " has a header the run cannot read";
        break;
    default:
        why = StringPrintf("%s holds %" PRId64 " values where its header announces %d x %d",
                           grid.inFileName.c_str(), values, grid.nx, grid.ny);
        break;
    }
    return grid;
}
