#!/usr/bin/env bash
# Runs one end-to-end case: copies <case>/input into a fresh directory, runs the binary
# there with the arguments listed in <case>/args (one a line; no file means project.xml),
# and compares with <case>/expected:
#   stdout, stderr, status  exactly;
#   tree                    the sorted list of every path in the directory after the run;
#   files/<path>            byte for byte with the file of that path.
# On a mismatch the run directory is kept and a diff printed.
set -u
binary=$1
case_dir=$2
expected="$case_dir/expected"
work=$(mktemp -d "${TMPDIR:-/tmp}/seaforge-e2e-XXXXXX")
if [ -d "$case_dir/input" ]; then
    cp -rL "$case_dir/input/." "$work/"
fi
args=()
if [ -f "$case_dir/args" ]; then
    mapfile -t args < "$case_dir/args"
else
    args=(project.xml)
fi
(cd "$work" && "$binary" "${args[@]}" > ../"$(basename "$work")".stdout \
                                     2> ../"$(basename "$work")".stderr)
status=$?
out="$work.stdout"
err="$work.stderr"

failed=0
compare() { # what, expected file, actual file
    if ! cmp -s "$2" "$3"; then
        echo "--- $1 differs (expected: $2)"
        diff -u "$2" "$3" | head -n 60
        failed=1
    fi
}
[ -f "$expected/stdout" ] && compare stdout "$expected/stdout" "$out"
[ -f "$expected/stderr" ] && compare stderr "$expected/stderr" "$err"
if [ -f "$expected/status" ]; then
    compare status "$expected/status" <(echo "$status")
fi
if [ -f "$expected/tree" ]; then
    compare tree "$expected/tree" <(cd "$work" && find . -mindepth 1 | LC_ALL=C sort)
fi
if [ -d "$expected/files" ]; then
    while IFS= read -r -d '' file; do
        relative=${file#"$expected/files/"}
        if [ ! -f "$work/$relative" ]; then
            echo "--- missing output file $relative"
            failed=1
        else
            compare "file $relative" "$file" "$work/$relative"
        fi
    done < <(find "$expected/files" -type f -print0)
fi

if [ "$failed" -ne 0 ]; then
    echo "Run kept in $work (streams: $out, $err)"
    exit 1
fi
rm -rf "$work" "$out" "$err"
echo "passed"
