#!/usr/bin/env bash
# From elevation data to a run: builds the three regions' grids of Sanriku.xml from
# sanriku_dem.tif, outermost first, then runs the project. Run it in a copy of this folder
# with seaforge-prep and Seaforge on the PATH (the README shows how).
set -euo pipefail
# Region 1: longitude-latitude cell edges.
seaforge-prep grid Sanriku.xml --region 1 --bounds 141.4 38.7 142.2 39.5 sanriku_dem.tif
# Region 2: JGD2000 plane system X, metres; checked against region 1 across systems.
seaforge-prep grid Sanriku.xml --region 2 --bounds 62000 -121950 98000 -72000 sanriku_dem.tif
# Region 3: Ofunato bay, laid on region 2's cells (three of its cells in each of theirs).
seaforge-prep grid Sanriku.xml --region 3 --bounds 74960 -112950 84050 -100890 sanriku_dem.tif
Seaforge Sanriku.xml
