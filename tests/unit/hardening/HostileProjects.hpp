#pragma once

// Project files whose text grows through the document type, one per way the XML library
// expands it, and large files that must run as their small base does. Shared by the
// hardening tests, which check how each run ends, and the benchmark that times them.

#include <cstddef>
#include <string>
#include <vector>

// What is added to a base project: the document type's internal subset, attributes of the
// root element and content at the root's end.
struct ProjectGrowth {
    const char* label;
    std::string doctype;
    std::string rootAttributes;
    std::string content;
};

// `base` (a project file whose root element is <Project>) with `growth` added.
inline std::string Grown(const std::string& base, const ProjectGrowth& growth) {
    std::string xml = base;
    const std::size_t root = xml.find("<Project>");
    const std::size_t end = xml.rfind("</Project>");
    xml.insert(end, growth.content);
    xml.insert(root + 8, growth.rootAttributes);
    if (!growth.doctype.empty())
        xml.insert(root, "<!DOCTYPE Project [" + growth.doctype + "]>\n");
    return xml;
}

namespace hostile {

inline std::string Times(const std::string& text, std::size_t count) {
    std::string all;
    all.reserve(text.size() * count);
    for (std::size_t k = 0; k < count; ++k)
        all += text;
    return all;
}

// Entities l0 = `leaf`, l1 = `fan` references to l0, ... up to l<levels - 1>.
// `percent` makes them parameter entities, whose references are written as "&#37;" so
// that they are expanded where the outermost one is used, not where they are declared.
inline std::string Chain(int levels, int fan, const std::string& leaf, bool percent = false) {
    const std::string kind = percent ? "% " : "";
    std::string declarations = "<!ENTITY " + kind + "l0 \"" + leaf + "\">";
    for (int k = 1; k < levels; ++k) {
        const std::string use = (percent ? "&#37;l" : "&l") + std::to_string(k - 1) + ";";
        declarations += "<!ENTITY " + kind + "l" + std::to_string(k) + " \"" +
                        Times(use, static_cast<std::size_t>(fan)) + "\">";
    }
    return declarations;
}

} // namespace hostile

// Each expands to far more than any project, from a file of at most about 1 MB.
inline std::vector<ProjectGrowth> ExpandingProjects() {
    using hostile::Chain;
    using hostile::Times;
    // 20 x 20 x 20 references to 64 KB: 512 M characters from 8421 expansions, fewer
    // than the library's own limit on references in content.
    const std::string wide = Chain(4, 20, std::string(65536, 'x'));
    // 10^9 references to "lol", and to nothing.
    const std::string deep = Chain(10, 10, "lol");
    const std::string megabyte = "<!ENTITY b \"" + std::string(1000000, 'x') + "\">";
    return {
        {"nested entities in content", wide, "", "<Notes>&l3;</Notes>"},
        {"nested entities in an attribute value", wide, " a=\"&l3;\"", ""},
        {"nested entities in the root's attribute default",
         deep + "<!ATTLIST Project a CDATA \"&l9;\">", "", ""},
        {"nested entities in a nested element's attribute default",
         deep + "<!ATTLIST ProjectName a CDATA \"&l9;\">", "", ""},
        {"nested parameter entities", Chain(10, 10, "<!-- -->", true) + "%l9;", "", ""},
        {"1 MB entity referenced 9000 times in content", megabyte, "",
         "<Notes>" + Times("&b;", 9000) + "</Notes>"},
        {"100 KB entity referenced 9000 times in an attribute value",
         "<!ENTITY b \"" + std::string(100000, 'x') + "\">", " a=\"" + Times("&b;", 9000) + "\"",
         ""},
        // Expansions that leave nothing behind.
        {"nested empty entities in an attribute default",
         Chain(10, 10, "") + "<!ATTLIST Project a CDATA \"&l9;\">", "", ""},
        {"1 MB of white space referenced 9000 times in an NMTOKENS default",
         "<!ENTITY w \"" + std::string(1000000, ' ') + "\"><!ATTLIST Project a NMTOKENS \"x" +
             Times("&w;", 9000) + "\">",
         "", ""},
    };
}

// Large but honest: each must run exactly as its base project does.
inline std::vector<ProjectGrowth> HonestLargeProjects(std::size_t plainBytes = 100000000) {
    const std::string line = "Sounding line 0042 of the harbour survey, kept for reference.\n";
    return {
        {"100 MB of plain text", "", "",
         "<Notes>" + hostile::Times(line, plainBytes / line.size()) + "</Notes>"},
        {"6000 references to small entities",
         "<!ENTITY bay \"Bay\"><!ENTITY survey \"harbour survey\">", " note=\"&bay;\"",
         hostile::Times("<Note at=\"&bay;\">&survey; of &bay;</Note>\n", 2000)},
    };
}
