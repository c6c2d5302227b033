// The built program on project files grown from the minimal end-to-end case: each whose
// text expands past any project's ends as a file that cannot be parsed, having written
// nothing; large honest ones run exactly as the case's expected outputs say.

#include "hardening/HostileProjects.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

const fs::path kCase = fs::path(SEAFORGE_E2E_DIR) / "minimal_project";

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct GrownRun {
    SeaforgeRun run;
    std::set<std::string> paths;                // "./path", as `find .` lists them
    std::map<std::string, std::string> written; // every file but the project, its bytes
};

// Runs `growth` added to the case's project beside the case's side files.
GrownRun RunGrown(const ProjectGrowth& growth) {
    TempDir dir;
    for (const char* side : {"fault.txt", "r1.txt"})
        fs::copy_file(kCase / "input" / side, dir.path() / side);
    dir.Write("project.xml", Grown(Slurp(kCase / "input/project.xml"), growth));
    GrownRun grown{RunSeaforge(dir.path()), {}, {}};
    for (const auto& entry : fs::recursive_directory_iterator(dir.path())) {
        const std::string path = "./" + fs::relative(entry.path(), dir.path()).string();
        grown.paths.insert(path);
        if (entry.is_regular_file() && path != "./project.xml")
            grown.written[path] = Slurp(entry.path());
    }
    return grown;
}

TEST(ProjectFileExpansion, PastTheBoundIsAParseError) {
    const std::set<std::string> inputs{"./fault.txt", "./project.xml", "./r1.txt"};
    for (const ProjectGrowth& growth : ExpandingProjects()) {
        const GrownRun grown = RunGrown(growth);
        EXPECT_EQ(grown.run.err, "Miss Parse\n" + ErrorBlock("ERROR:XML Parse")) << growth.label;
        EXPECT_EQ(grown.run.status, 1) << growth.label;
        EXPECT_EQ(grown.run.out, "=============================================\n"
                                 "       Seaforge version 1.1.938\n"
                                 "=============================================\n"
                                 "\n>>>>>>>>>>>>>>>>>> XML Input:\n")
            << growth.label;
        EXPECT_EQ(grown.paths, inputs) << growth.label;
    }
}

TEST(ProjectFileExpansion, LargeHonestFilesRunAsBefore) {
    const fs::path expected = kCase / "expected";
    std::set<std::string> tree;
    std::istringstream listing(Slurp(expected / "tree"));
    for (std::string line; std::getline(listing, line);)
        tree.insert(line);
    for (const ProjectGrowth& growth : HonestLargeProjects()) {
        GrownRun grown = RunGrown(growth);
        EXPECT_EQ(grown.run.out, Slurp(expected / "stdout")) << growth.label;
        EXPECT_EQ(grown.run.err, Slurp(expected / "stderr")) << growth.label;
        EXPECT_EQ(std::to_string(grown.run.status) + "\n", Slurp(expected / "status"))
            << growth.label;
        EXPECT_EQ(grown.paths, tree) << growth.label;
        for (const auto& file : fs::recursive_directory_iterator(expected / "files")) {
            if (!file.is_regular_file())
                continue;
            const std::string path = "./" + fs::relative(file.path(), expected / "files").string();
            EXPECT_EQ(grown.written[path], Slurp(file.path())) << growth.label << ": " << path;
        }
    }
}

} // namespace
