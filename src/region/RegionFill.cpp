#include "region/Region.hpp"

void Region::Make2dStruct() { grid.Assign(nx, ny, uniformValue); }

void Region::Make2dStruct2() { pairGrid.Assign(nx, ny, uniformValue); }

// Kept: zeros, not uniformValue; later steps mark this map cell by cell.
void Region::Make2dStructInt2() { pairIntGrid.Assign(nx, ny, 0); }
