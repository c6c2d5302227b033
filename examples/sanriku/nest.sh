#!/usr/bin/env bash
# From a place to a project: one seaforge-prep nest call designs the nested regions around
# Kamaishi from sanriku_dem.tif, builds them, checks and draws them; then the project runs.
# Run it in a copy of this folder with seaforge-prep and Seaforge on the PATH.
set -euo pipefail
# Status 2: a rule of the plan gave way where the data end; each warning says which.
status=0
seaforge-prep nest --site 141.89 39.27 --radius 2km --finest 30 --fault Fault.txt \
    -o Kamaishi sanriku_dem.tif || status=$?
[ "$status" -eq 0 ] || [ "$status" -eq 2 ]
cd Kamaishi
Seaforge Kamaishi.xml
