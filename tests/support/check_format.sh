#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# Every source keeps to .clang-format and begins with its licence.
set -euo pipefail
cd "$(dirname "$0")/../.."
mapfile -t sources < <(git ls-files '*.cc' '*.h' '*.def')
clang-format --dry-run -Werror "${sources[@]}"
mapfile -t unlicensed < <(git ls-files '*.cc' '*.h' '*.def' '*.py' '*.sh' '*CMakeLists.txt' '*.cmake' run test .ci/run |
  xargs grep -L 'SPDX-License-Identifier: Apache-2.0' || true)
if [ "${#unlicensed[@]}" -gt 0 ]; then
  printf 'No SPDX line: %s\n' "${unlicensed[@]}"
  exit 1
fi
