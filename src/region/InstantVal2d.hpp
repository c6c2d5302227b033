#pragma once

#include <vector>

// One time stage of a deformation grid: `count` values of the region's cells in file
// order (row j = 0 first, x fastest). A stage with count 0 holds nothing.
struct InstantVal2d {
    int count = 0;
    std::vector<float> values;
};
