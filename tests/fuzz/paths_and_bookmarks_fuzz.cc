// SPDX-License-Identifier: Apache-2.0
//
// Any texts as paths, as links on a disk, as folders in the environment; any bytes as a bookmark.
// The operations on paths keep their laws, links are followed to an end, the folders of the process
// are absolute, and a bookmark leads to a folder that is there or nowhere.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <deque>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/plist.h"
#include "client/whole_file.h"
#include "paths/FullDiskAccess.h"
#include "paths/THMPPathAdditions.h"
#include "paths/path_components.h"
#include "platform/fake/FakePlatform.h"
#include "platform/linux/LinuxApplication.h"
#include "platform/linux/LinuxExecution.h"
#include "platform/linux/XdgFolders.h"
#include "tests/fuzz/ScratchFolder.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

void checkLaws(const THMPPathAdditions& paths, const std::string& a, const std::string& b) {
  const std::string standard = paths.stringByStandardizingPath(a);
  // A tilde may come up at the front only when something before it went.
  if (!standard.starts_with('~')) {
    THMP_FUZZ_CHECK(paths.stringByStandardizingPath(standard) == standard);
  }
  THMP_FUZZ_CHECK(pathWithComponents(standardizedComponents(pathComponents(standard))) == standard);
  THMP_FUZZ_CHECK(paths.thmp_hasPathPrefix(a, a) && !paths.thmp_hasPathPrefix(a, a, true));
  if (paths.thmp_hasPathPrefix(a, b) && paths.thmp_hasPathPrefix(b, a)) {
    THMP_FUZZ_CHECK(standard == paths.stringByStandardizingPath(b));
  }
  THMP_FUZZ_CHECK(paths.thmp_hasPathPrefix(a, b, true) ==
                  (paths.thmp_hasPathPrefix(a, b) && !paths.thmp_hasPathPrefix(b, a)));
  const auto shared = paths.thmp_commonAncestorWithPath(a, b);
  THMP_FUZZ_CHECK(shared == paths.thmp_commonAncestorWithPath(b, a));
  if (shared && !shared->starts_with('~')) {
    THMP_FUZZ_CHECK(paths.thmp_hasPathPrefix(a, *shared) && paths.thmp_hasPathPrefix(b, *shared));
  }
  if (standard.starts_with('/')) {
    const std::string home = paths.processPaths().THMPUserHomeDirectory();
    const std::string shortened = paths.thmp_stringByAbbreviatingWithTildeInPath(standard);
    if (paths.thmp_hasPathPrefix(standard, home)) {
      THMP_FUZZ_CHECK(paths.thmp_stringByExpandingTildeInPath(shortened) == standard);
    } else {
      THMP_FUZZ_CHECK(shortened == standard);
    }
  }
  paths.thmp_isPathString(a);
}

bool isOne(const std::vector<std::string>& locations, const std::string& location) {
  return std::find(locations.begin(), locations.end(), location) != locations.end();
}

void checkLinks(FakePlatform& fake, const THMPPathAdditions& paths, const std::string& a,
                const std::string& b) {
  if (a.find('\0') == std::string::npos && !a.empty()) fake.files.makeLink("/l/one", a);
  if (b.find('\0') == std::string::npos && !b.empty()) fake.files.makeLink("/l/two", b);
  const FullDiskAccess access(paths, fake.files, fake.identity, fake.application, fake.log);
  for (const std::string& path : {a, "/l/one/" + b}) {
    std::string location;
    if (access.thmp_isAncestorOfKnownFullDiskAccessLocation(path, &location)) {
      THMP_FUZZ_CHECK(isOne(access.thmp_knownFullDiskAccessLocations(), location));
    }
    if (access.thmp_isDescendantOfKnownFullDiskAccessLocation(path, &location)) {
      THMP_FUZZ_CHECK(isOne(access.thmp_knownFullDiskAccessLocations(), location));
    }
  }
  std::deque<std::string> folders{"/l", a};
  for (int steps = 0; steps < 8 && !folders.empty(); ++steps) {
    access.thmp_printFDAFoldersUnderPaths(folders);
  }
}

void checkEnvironment(const std::string& a, const std::string& b) {
  const XdgFolders folders = XdgFolders::from([&](const char* name) -> const char* {
    if (std::strcmp(name, "HOME") == 0) return a.c_str();
    return std::strcmp(name, "XDG_DATA_HOME") == 0 ? nullptr : b.c_str();
  });
  for (const std::string& folder :
       {folders.home, folders.data, folders.config, folders.cache, folders.runtime}) {
    THMP_FUZZ_CHECK(folder.starts_with('/'));
  }
}

// A name in the process's own folder; whatever it is, a test is no write.
void checkReport(const ScratchFolder& scratch, const std::string& name) {
  if (name.find("..") != std::string::npos) return;
  static_cast<void>(client::canWriteWhole(scratch.path() + "/" + name));
  THMP_FUZZ_CHECK(std::filesystem::is_empty(scratch.path()));
}

void checkResolved(LinuxApplication& application, const Data& bookmark) {
  const auto resolved = application.resolveBookmark(bookmark);
  if (!resolved) return;
  THMP_FUZZ_CHECK(resolved->url.isFile() && resolved->url.path().starts_with('/'));
  THMP_FUZZ_CHECK(std::filesystem::is_directory(resolved->url.path()));
}

LinuxApplication& linuxApplication() {
  static FakePlatform fake;
  static LinuxExecution execution(fake.log);
  static LinuxApplication only(XdgFolders(), execution, fake.log);
  return only;
}

void checkBookmarks(const ScratchFolder& scratch, Decisions& decisions) {
  LinuxApplication& application = linuxApplication();
  static const auto made = application.makeBookmark(Url::file(scratch.path()));
  THMP_FUZZ_CHECK(made.has_value());
  const auto back = application.resolveBookmark(*made);
  THMP_FUZZ_CHECK(back && !back->stale && back->url == Url::file(scratch.path()));

  // One of ours with a few bytes changed, and one that is nothing but the input.
  Data changed = *made;
  for (std::size_t left = decisions.below(4); left > 0; --left) {
    const std::size_t place = decisions.byte() % changed.bytes.size();
    changed.bytes[place] = static_cast<char>(decisions.byte());
  }
  checkResolved(application, changed);
  checkResolved(application, Data{std::string(decisions.rest())});
}

// A bookmark comes to a megabyte at once, a path does not.
void parseOnce(std::string_view bytes) {
  FakePlatform fake;
  const THMPPathAdditions paths(fake.identity);
  const std::string path(bytes);
  paths.thmp_isPathString(path);
  paths.stringByStandardizingPath(path);
  linuxApplication().resolveBookmark(Data{path});
}

}  // namespace

const Bounds kBounds{1, 64 * kMiB, parseOnce};

void runInput(std::string_view bytes) {
  static const ScratchFolder scratch;
  Decisions decisions(bytes);
  const std::string a(decisions.text());
  const std::string b(decisions.text());

  FakePlatform fake;
  fake.identity.setCurrentUser(UserRecord{"ada", "/home/ada"});
  fake.identity.addUser(UserRecord{"bo", "/home/bo"});
  const THMPPathAdditions paths(fake.identity);
  checkLaws(paths, a, b);
  checkLaws(paths, b, a);
  checkLinks(fake, paths, a, b);
  checkEnvironment(a, b);
  checkReport(scratch, a);
  checkBookmarks(scratch, decisions);
}

}  // namespace thmp::fuzz
