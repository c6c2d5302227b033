#include "project/QuorXmlParameter.hpp"

#include "hardening/HardeningSupport.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Nested(int levels, const std::string& inner) {
    std::string text;
    for (int k = 0; k < levels; ++k)
        text += "<a>";
    text += inner;
    for (int k = 0; k < levels; ++k)
        text += "</a>";
    return text;
}

std::string Attributes(int count) {
    std::string text;
    for (int k = 0; k < count; ++k)
        text += " a" + std::to_string(k) + "=\"1\"";
    return text;
}

struct Parsed {
    HardeningResult run;
    std::string projectName;
};

Parsed Parse(const std::string& xml) {
    HardeningFile file("project.xml", xml);
    QuorXmlParameter project(file.path());
    const HardeningResult run = RunQuietly([&] { return project.exeParse(); });
    return {run, project.ProjectName};
}

// Nested so deep, reading the project name's text used to overflow the stack, and the
// parse alone took seconds, growing with the square of the depth.
TEST(QuorXmlParameterHardening, NestingBeyondTheLimitIsAParseError) {
    for (const std::string& xml :
         {"<P><ProjectName>" + Nested(200000, "Bay") + "</ProjectName></P>",
          "<P><ProjectName>" + Nested(255, "Bay") + "</ProjectName></P>"}) {
        const Parsed parsed = Parse(xml);
        EXPECT_EQ(parsed.run.result, 0) << xml.size();
        EXPECT_EQ(parsed.run.err, "Miss Parse\n");
        EXPECT_EQ(parsed.projectName, "");
    }
}

// Each attribute cost a search of those before it: 100000 took half a minute.
TEST(QuorXmlParameterHardening, AttributesBeyondTheLimitAreAParseError) {
    const Parsed parsed = Parse("<P" + Attributes(257) + "><ProjectName>Bay</ProjectName></P>");
    EXPECT_EQ(parsed.run.result, 0);
    EXPECT_EQ(parsed.run.err, "Miss Parse\n");
}

TEST(QuorXmlParameterHardening, ProjectsUpToTheLimitsAreRead) {
    // The root, ProjectName and 254 levels: 256. Empty elements end where they start, so
    // any number of them leaves the depth as it was.
    std::string empties;
    for (int k = 0; k < 300; ++k)
        empties += "<Empty" + Attributes(k == 0 ? 256 : 0) + "/>";
    const Parsed parsed = Parse("<P" + Attributes(256) + ">" + empties + "<ProjectName>" +
                                Nested(254, "Bay") + "</ProjectName></P>");
    EXPECT_NE(parsed.run.result, 0);
    EXPECT_EQ(parsed.run.err.find("Miss Parse"), std::string::npos);
    EXPECT_EQ(parsed.projectName, "Bay");
}

} // namespace
