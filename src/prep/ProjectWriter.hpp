#pragma once

#include "prep/Plan.hpp"

#include <string>
#include <utility>
#include <vector>

// The project file of a plan, written with the XML library the run reads it with.
struct ProjectSettings {
    double timeIncrement = 0;
    int geographicEpsg = 4326; // the system of the fault and point lists
    std::string fault;         // file names as the project names them
    // Point lists as the project names them, each with the system of its coordinates.
    std::vector<std::pair<std::string, int>> stations;
    std::vector<std::pair<std::string, int>> coastPoints;
};

// Writes `path` whole: the document is serialised beside it, read back with the run's
// reader and compared with what was meant before it replaces any earlier file. Throws
// PrepError when it cannot be written or reads back otherwise.
void WriteProjectFile(const std::string& path, const Plan& plan, const ProjectSettings& settings);
