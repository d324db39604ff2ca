# SPDX-License-Identifier: Apache-2.0
#
# Sourced by ./run and ./test: the Debian packages that each needs, and how to get those that are missing.

program_packages=(g++ cmake ninja-build pkg-config python3 libsqlite3-dev libexpat1-dev
  libutf8proc-dev libgmime-3.0-dev libcli11-dev libfmt-dev nlohmann-json3-dev scdoc)
test_packages=(libgtest-dev libgmock-dev libbenchmark-dev libplist3 clang clang-format clang-tidy libclang-rt-14-dev
  binutils util-linux procps strace fish zsh)

say() { printf '\n== %s\n' "$*"; }

# install_missing PACKAGE...: asks dpkg first, so that a second run, and a user without rights to install, cost nothing.
install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
  [ "${#missing[@]}" -eq 0 ] && return 0
  say "Installing ${missing[*]}"
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "These packages are missing: ${missing[*]}. Ask an administrator for: apt-get install ${missing[*]}" >&2
      return 1
    fi
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
      "${missing[@]}" >/dev/null
}

# build PRESET TARGET: quiet into a pipe, one moving line on a terminal.
build() {
  local quiet=()
  [ -t 1 ] || quiet=(--quiet)
  cmake --build --preset "$1" --target "$2" -- "${quiet[@]}"
}
