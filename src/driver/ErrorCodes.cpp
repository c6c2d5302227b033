#include "driver/ErrorCodes.hpp"

#include "project/Console.hpp"

#include <array>
#include <cstdio>

namespace {

// Indexed by code - 1. Kept: "Prameter" and "Dyanmic" are spelt as users grep for them.
constexpr std::array<const char*, 23> kCodeMessages = {
    "ERROR:XML Parse",
    "ERROR:Read Fault Parameter",
    "ERROR:Read Topography",
    "ERROR:Deform Topography",
    "ERROR:Make Shapefile",
    "ERROR:Write Calculate Prameter TEXT File",
    "ERROR:Read Station List File",
    "ERROR:Make GeoTIFF",
    "ERROR:Write OriginXY TEXT File",
    "ERROR:Calculate CFL",
    "ERROR:Comprisable:NG",
    "ERROR:Write Station File",
    "ERROR:Read Ini Wave Height",
    "ERROR:Read Roughness Coefficient",
    "ERROR:Write Wave-Breaker Map File",
    "ERROR:Write Wave-Breaker Height File",
    "ERROR:Read Extract Point File",
    "ERROR:Read Dyanmic Deformation Parameter File",
    "ERROR:Read Construction Line Parameter File",
    nullptr,
    "ERROR:Read Land Map File",
    "ERROR:Calc Hydraulic Filter",
    "ERROR:Read Construction Line Data File",
};

} // namespace

std::string CodeMessage(int code) {
    if (code < 1 || code > static_cast<int>(kCodeMessages.size()))
        return {};
    const char* message = kCodeMessages[static_cast<size_t>(code - 1)];
    return message == nullptr ? std::string() : std::string(message);
}

void PrintCodeBlock(int code) {
    const std::string message = CodeMessage(code);
    if (message.empty())
        PrintErrorBlock({});
    else
        PrintErrorBlock({message});
}
