#pragma once

#include <string>

// A named point fitted to one region: its cell, 0-based, i along x and j along y.
struct PosIJ {
    int i = 0;
    int j = 0;
    std::string name;
};
