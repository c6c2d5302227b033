#include "driver/Run.hpp"

#include "driver/MakeDir.hpp"
#include "project/QuorXmlParameter.hpp"

#include <cstdio>

const std::string program = "Seaforge";
const std::string version = "1.1.938";

void PrintBanner() {
    std::printf("=============================================\n");
    std::printf("       %s version %s\n", program.c_str(), version.c_str());
    std::printf("=============================================\n");
}

void usage(std::FILE* stream) {
    // Kept: the blank at the end of the usage, description and example lines.
    std::fprintf(stream, "\n"
                         "SYNOPSIS\n"
                         "    Usage: Seaforge <XML filename> \n"
                         "\n"
                         "DESCRIPTION\n"
                         "    Seaforge makes a QUOR project. \n"
                         "    Seaforge makes GeoTIFF Files and shapefiles. \n"
                         "\n"
                         "EXAMPLES\n"
                         "    $./Seaforge ./Example.xml \n"
                         "\n"
                         "COPYRIGHT\n"
                         "    Copyright (c) the Seaforge developers. \n"
                         "\n");
}

void PrintUsage() { usage(stdout); }

void RunProject(const char* xmlFileName) {
    std::printf("\n>>>>>>>>>>>>>>>>>> XML Input:\n");
    QuorXmlParameter project(xmlFileName);
    if (!project.exeParse())
        throw 1;
    if (!project.checkXML())
        throw 1;
    std::printf("<<<<<<<<<<<<<<<<<< Completed.(XML Input)\n");

    // DestDir already carries the ProjectName prefix (see the reader).
    if (!MakeDir(project.DestDir.c_str()))
        throw 1;
    if (!MakeDir((project.ProjectName + "/OUTPUT").c_str()))
        throw 1;

    std::printf("\nSuccessful Completion. ( Seaforge Done. )\n");
}
