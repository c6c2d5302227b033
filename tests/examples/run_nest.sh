#!/usr/bin/env bash
# Runs the README's "From a place to a project" commands as it tells users to: in a fresh
# copy of the Sanriku example's folder, with the built programs on the PATH. Passes when
# nest ends with 0 or 2 (a rule gave way where the data end; each warning says which) and
# the nested project's run completes.
set -euo pipefail
bin_dir=$1
example=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/seaforge-nest-XXXXXX")
cp -r "$example/." "$work/"
cd "$work"
export PATH="$bin_dir:$PATH"
status=0
seaforge-prep nest --site 141.89 39.27 --radius 2km --finest 30 --fault Fault.txt \
    -o Kamaishi sanriku_dem.tif > nest.out 2> nest.err || status=$?
if [ "$status" -ne 0 ] && [ "$status" -ne 2 ]; then
    echo "nest ended with status $status; kept in $work"; cat nest.err; exit 1
fi
(cd Kamaishi && Seaforge Kamaishi.xml) > run.out 2> run.err || {
    echo "the nested project's run failed; kept in $work"; cat run.err; exit 1; }
if ! tail -n 1 run.out | grep -qx "Successful Completion. ( Seaforge Done. )"; then
    echo "the nested project did not run to completion; kept in $work"; exit 1
fi
rm -rf "$work"
