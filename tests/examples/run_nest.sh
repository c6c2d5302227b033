#!/usr/bin/env bash
# Runs an example's nest.sh as the README tells users to: in a fresh copy of the example's
# folder, with the built programs on the PATH. Passes when the nested project's run
# completes.
set -euo pipefail
bin_dir=$1
example=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/seaforge-nest-XXXXXX")
cp -r "$example/." "$work/"
cd "$work"
PATH="$bin_dir:$PATH" bash nest.sh > nest.out 2> nest.err || {
    echo "nest.sh failed; kept in $work"; cat nest.err; exit 1; }
if ! tail -n 1 nest.out | grep -qx "Successful Completion. ( Seaforge Done. )"; then
    echo "the nested project did not run to completion; kept in $work"; cat nest.err; exit 1
fi
rm -rf "$work"
