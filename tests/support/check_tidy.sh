#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# check_tidy.sh BUILD: clang-tidy over every source of a build that joins the sources of a target (asan), so that headers are
# read once a target; all findings are errors. Sources that have passed before are not looked at again.
set -euo pipefail
build=$1
cd "$(dirname "$0")/../.."
passed=$build/tidy-passed
state=$(git ls-files '*.cc' '*.h' .clang-tidy | xargs cat | sha256sum | cut -d' ' -f1)
[ -f "$passed" ] && [ "$(cat "$passed")" = "$state" ] && { echo "unchanged since it passed"; exit 0; }
# Tests are checked by the compilers' warnings alone: clang-tidy over them costs more than the builds.
python3 -c 'import json, re, sys
for entry in json.load(open(sys.argv[1] + "/compile_commands.json")):
    if not re.search(r" -o (tests|benchmarks)/| -o \S*_test\.dir/", entry["command"]): print(entry["file"])' "$build" |
  xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p "$build" --extra-arg=-Wno-unknown-warning-option 2>/dev/null
echo "$state" >"$passed"
