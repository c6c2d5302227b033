#!/usr/bin/env bash
# Runs an example's walkthrough.sh as the README tells users to: in a fresh copy of the
# example's folder, with the built programs on the PATH. Passes when the run completes.
set -euo pipefail
bin_dir=$1
example=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/seaforge-walkthrough-XXXXXX")
cp -r "$example/." "$work/"
cd "$work"
PATH="$bin_dir:$PATH" bash walkthrough.sh > walkthrough.out 2> walkthrough.err || {
    echo "walkthrough failed; kept in $work"; cat walkthrough.err; exit 1; }
if [ -s walkthrough.err ] || ! tail -n 1 walkthrough.out | grep -qx "Successful Completion. ( Seaforge Done. )"; then
    echo "walkthrough did not complete cleanly; kept in $work"; cat walkthrough.err; exit 1
fi
rm -rf "$work"
