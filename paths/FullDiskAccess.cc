// SPDX-License-Identifier: Apache-2.0
#include "paths/FullDiskAccess.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <string_view>
#include <utility>

#include "base/format.h"
#include "paths/full_disk_access_lists.h"
#include "paths/resolved_links.h"

namespace thmp {
namespace {

// Above these the system is of the current generation, and has the control at all.
constexpr double kLastOfEarlierSystems = 1671.0;
constexpr double kLastWithoutControl = 1561.0;

constexpr std::int64_t kNotPermitted = 1;
constexpr unsigned kReadableByOwner = 0400;

std::vector<std::string> standardized(const THMPPathAdditions& paths,
                                      std::span<const std::string_view> stored) {
  std::vector<std::string> all;
  for (const std::string_view path : stored) {
    all.push_back(paths.stringByStandardizingPath(std::string(path)));
  }
  return all;
}

/// Stores the first of `locations` that `matches` in `found`. False, and `found` left alone, when
/// there is none.
template <typename Matches>
bool findFirst(const std::vector<std::string>& locations, std::string* found,
               const Matches& matches) {
  const auto first = std::find_if(locations.begin(), locations.end(), matches);
  if (first == locations.end()) return false;
  if (found != nullptr) *found = *first;
  return true;
}

std::string withoutEndSlash(std::string path) {
  while (path.ends_with('/')) path.pop_back();
  return path;
}

}  // namespace

FullDiskAccess::FullDiskAccess(const THMPPathAdditions& paths, Files& files, Identity& identity,
                               Application& application, SystemLog& log)
    : paths_(paths), files_(files), identity_(identity), application_(application), log_(log) {}

const std::vector<std::string>& FullDiskAccess::thmp_knownFullDiskAccessLocations() const {
  std::call_once(locationsOnce_, [this] {
    const bool earlier =
        identity_.systemVersion().has_value() && !isSystemVersionAbove(kLastOfEarlierSystems);
    locations_ = earlier ? standardized(paths_, kEarlierFullDiskAccessLocations)
                         : standardized(paths_, kCurrentFullDiskAccessLocations);
  });
  return locations_;
}

const std::optional<std::vector<std::string>>&
FullDiskAccess::thmp_knownFullDiskAccessPathPrefixes() const {
  std::call_once(prefixesOnce_, [this] {
    std::vector<std::string> prefixes = {paths_.stringByStandardizingPath("~/Library/"),
                                         paths_.stringByStandardizingPath("/Library/")};
    // Deliberate: the current list has a location outside both, and so there are none.
    for (const std::string& location : thmp_knownFullDiskAccessLocations()) {
      if (!paths_.thmp_hasPathPrefix(location, prefixes[0]) &&
          !paths_.thmp_hasPathPrefix(location, prefixes[1])) {
        return;
      }
    }
    prefixes_ = std::move(prefixes);
  });
  return prefixes_;
}

bool FullDiskAccess::thmp_isAncestorOfKnownFullDiskAccessLocation(const std::string& path,
                                                                  std::string* location) const {
  const std::string resolved = stringByResolvingSymlinksInPath(path);
  return findFirst(thmp_knownFullDiskAccessLocations(), location, [&](const std::string& known) {
    return paths_.thmp_hasPathPrefix(known, resolved);
  });
}

bool FullDiskAccess::thmp_isDescendantOfKnownFullDiskAccessLocation(const std::string& path,
                                                                    std::string* location) const {
  const std::string resolved = stringByResolvingSymlinksInPath(path);
  const auto lies = [&](const std::string& prefix) {
    return paths_.thmp_hasPathPrefix(resolved, prefix);
  };
  // Outside every Library folder there is nothing to compare with.
  const auto& prefixes = thmp_knownFullDiskAccessPathPrefixes();
  if (prefixes && std::none_of(prefixes->begin(), prefixes->end(), lies)) return false;
  return findFirst(thmp_knownFullDiskAccessLocations(), location, lies);
}

void FullDiskAccess::thmp_printFDAFoldersUnderPaths(std::deque<std::string>& paths) const {
  if (paths.empty()) return;
  const std::string folder = std::move(paths.front());
  paths.pop_front();
  const std::string base = withoutEndSlash(folder);
  // The walk follows no link: one on the way to an entry is on the way to the folder, or the entry.
  const bool behindLink = stringByResolvingSymlinksInPath(folder) != (base.empty() ? "/" : base);
  files_.walk(folder, [&](const std::string& entry) {
    const std::string path = base + "/" + entry;
    if (!files_.isDirectory(path)) return;
    if (files_.isReadable(path)) {
      // Inside a container's own library everything is the container's.
      if (path.find("/Data/Library/") != std::string::npos) return;
      if (!behindLink && !files_.linkTarget(path)) paths.push_back(path);
      return;
    }
    // Its owner could read it, going by its permissions; so it is the system that does not let us.
    const std::optional<unsigned> permissions = files_.permissions(path);
    if (!permissions || (*permissions & kReadableByOwner) == 0) return;
    constexpr LogFormat<std::string> kProtected = "FDA protected: %@";
    log_.write(formatLog(kProtected.text(), std::array<LogArg, 1>{path}));
  });
}

bool FullDiskAccess::thmp_hasFullDiskAccess() const {
  if (!isSystemVersionAbove(kLastWithoutControl)) return true;
  // Never removed: every activation from now on may follow a change of the user's mind.
  std::call_once(observedOnce_, [this] {
    application_.observeDidBecomeActive(cache_, [cache = cache_.get()] { ++cache->activations; });
  });
  const std::uint64_t activation = cache_->activations;
  const std::uint64_t known = cache_->answer;
  if (known != AccessCache::kNone && known / 2 == activation) return known % 2 == 1;
  // Not locked: two that ask at the same time may both check.
  const bool access = thmp_checkHasFullDiskAccess();
  cache_->answer = activation * 2 + (access ? 1 : 0);
  return access;
}

bool FullDiskAccess::thmp_checkHasFullDiskAccess() const {
  std::call_once(probeFoldersOnce_,
                 [this] { probeFolders_ = standardized(paths_, kFullDiskAccessProbeFolders); });
  bool access = false;
  for (const std::string& folder : probeFolders_) {
    if (!files_.exists(folder) || !files_.isDirectory(folder)) continue;
    if (isRefused(folder)) return false;
    access = true;
  }
  return access;
}

std::string FullDiskAccess::stringByResolvingSymlinksInPath(const std::string& path) const {
  const std::string expanded = paths_.stringByExpandingTildeInPath(path);
  if (expanded.starts_with('/')) {
    if (auto resolved = resolvedLinks(files_, expanded)) return *std::move(resolved);
  }
  return paths_.stringByStandardizingPath(expanded);
}

bool FullDiskAccess::isSystemVersionAbove(double version) const {
  const std::optional<double> number = identity_.systemVersion();
  return number && std::floor(*number) > version;
}

/// Whether the system does not permit to list `folder`. Any other failure counts as access.
bool FullDiskAccess::isRefused(const std::string& folder) const {
  Error error;
  if (files_.list(folder, &error)) return false;
  return error.underlying && error.underlying->domain == kPosixErrorDomain &&
         error.underlying->code == kNotPermitted;
}

}  // namespace thmp
