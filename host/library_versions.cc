// SPDX-License-Identifier: Apache-2.0
#include "host/library_versions.h"

#include <expat.h>
#include <fmt/format.h>
#include <gmime/gmime.h>
#include <sqlite3.h>
#include <utf8proc.h>

#include <CLI/Version.hpp>
#include <nlohmann/json.hpp>
#include <string_view>

namespace thmp {

std::string libraryVersions() {
  // "expat_2.5.0"
  std::string_view expat = XML_ExpatVersion();
  expat.remove_prefix(expat.find('_') == std::string_view::npos ? 0 : expat.find('_') + 1);
  std::string versions = fmt::format(
      "SQLite {}, GMime {}.{}.{}, utf8proc {}, Expat {}, fmt {}.{}.{}, "
      "nlohmann-json {}.{}.{}, CLI11 {}",
      sqlite3_libversion(), gmime_major_version, gmime_minor_version, gmime_micro_version,
      utf8proc_version(), expat, FMT_VERSION / 10000, FMT_VERSION / 100 % 100, FMT_VERSION % 100,
      NLOHMANN_JSON_VERSION_MAJOR, NLOHMANN_JSON_VERSION_MINOR, NLOHMANN_JSON_VERSION_PATCH,
      CLI11_VERSION);
#ifdef THMP_LIBSYSTEMD_VERSION
  versions += ", libsystemd " THMP_LIBSYSTEMD_VERSION;
#endif
  return versions;
}

}  // namespace thmp
