// SPDX-License-Identifier: Apache-2.0
//
// Library and index, read so that not even the companions of their files come into being: where
// nobody writes, SQLite is told that the file cannot change.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

#include "host/doctor/checks.h"
#include "host/index/Index.h"
#include "host/index/Indexer.h"
#include "host/store/Library.h"
#include "host/store/sqlite_connection.h"

namespace thmp::doctor {
namespace {

enum class Health : std::uint8_t { kSound, kMissing, kUnreadable, kDamaged };

struct DatabaseLook {
  Health health = Health::kSound;
  std::string why;
  /// To open it by, for reading only.
  std::string name;
};

/// `path` as a URI that promises SQLite an unchanging file.
std::string unchanging(const std::string& path) {
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      uri += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    } else {
      uri += c;
    }
  }
  return uri + "?immutable=1";
}

bool hasJournal(const std::string& path) {
  struct stat status {};
  return ::stat((path + "-wal").c_str(), &status) == 0 && status.st_size > 0;
}

DatabaseLook look(const std::string& path, bool inUse) {
  DatabaseLook found;
  const auto is = [&](Health health, std::string why) {
    found.health = health;
    found.why = std::move(why);
    return found;
  };
  if (::access(path.c_str(), R_OK) != 0) {
    if (errno == ENOENT) return is(Health::kMissing, "");
    return is(Health::kUnreadable, std::generic_category().message(errno));
  }
  found.name = inUse || hasJournal(path) ? path : unchanging(path);
  const auto connection = Connection::open(found.name, Connection::Mode::kReadOnly);
  if (!connection) return is(Health::kUnreadable, connection.error().description);
  Statement check = (*connection)->prepare("PRAGMA quick_check(1)");
  if (check.row()) {
    const std::string_view verdict = check.bytes(0);
    if (verdict != "ok") return is(Health::kDamaged, std::string(verdict));
  } else {
    sqlite3* const handle = (*connection)->handle();
    const int code = sqlite3_errcode(handle);
    const bool damaged = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
    return is(damaged ? Health::kDamaged : Health::kUnreadable, sqlite3_errmsg(handle));
  }
  return found;
}

/// As look(). A host that began meanwhile has broken the promise: then once more without it.
DatabaseLook lookTwice(const std::string& path, bool inUse) {
  DatabaseLook found = look(path, inUse);
  if (found.name != path && hasJournal(path)) found = look(path, /*inUse=*/true);
  return found;
}

struct LibraryLook {
  Finding finding;
  /// Null when it cannot be used.
  std::unique_ptr<Library> library;
};

LibraryLook checkLibrary(const std::string& path, bool inUse) {
  const std::string subject = "library";
  const DatabaseLook found = lookTwice(path, inUse);
  switch (found.health) {
    case Health::kMissing:
      if (const auto refused = checkMakeable(subject, path)) return {*refused, nullptr};
      return {
          warn(subject, "nothing was indexed yet; begin with tallyhive-mailhost index --mail DIR"),
          nullptr};
    case Health::kUnreadable:
      return {fail(subject, fmt::format("{} cannot be read: {}; run chmod 600 on it, as its owner",
                                        path, found.why)),
              nullptr};
    case Health::kDamaged:
      return {fail(subject, fmt::format("{} is damaged: {}; put a copy in its place, or move it "
                                        "away: then all messages get new IDs",
                                        path, found.why)),
              nullptr};
    case Health::kSound:
      break;
  }
  auto library = Library::open(found.name, Library::Access::kReadOnly);
  const auto count = library ? (*library)->messageCount() : Result<std::uint64_t>(library.error());
  const auto mailboxes =
      library ? (*library)->mailboxes() : Result<std::vector<LibraryMailbox>>(library.error());
  if (!count || !mailboxes) {
    return {fail(subject, path + " is of another version of this program; use that one, or move it "
                                 "away"),
            nullptr};
  }
  return {ok(subject, fmt::format("sound, {} in {}", counted(*count, "message"),
                                  counted(mailboxes->size(), "mailbox"))),
          *std::move(library)};
}

/// How much of the mail is found. Never a failure for single messages: what can be read of them is
/// found.
Finding checkCoverage(Library& library, Index& index, const std::vector<std::string>& mailFolders,
                      bool inUse) {
  const std::string subject = "coverage";
  Indexer indexer(library, index);
  indexer.setRoots(mailFolders);
  const auto coverage = indexer.count();
  const auto incomplete = index.incomplete();
  const auto failed = index.failed();
  if (!coverage || !incomplete || !failed) {
    return fail(subject,
                "library and index cannot be read to their ends; run tallyhive-mailhost "
                "index, and look at what it says");
  }
  std::uint64_t partly = 0;
  for (std::size_t i = 0; i < incomplete->size(); ++i) {
    if (i == 0 || (*incomplete)[i].id != (*incomplete)[i - 1].id) ++partly;
  }
  const std::uint64_t left = coverage->seen - coverage->unchanged;
  const std::uint64_t waiting = left - std::min<std::uint64_t>(left, failed->size());
  const std::string text =
      fmt::format("{} of {} indexed, waiting {}, incomplete {}, failed {}", coverage->unchanged,
                  counted(coverage->seen, "message"), waiting, partly, failed->size());
  if (waiting > 0) {
    return warn(subject,
                text + (inUse ? "; the host is at it" : "; go on with tallyhive-mailhost index"));
  }
  if (!failed->empty()) {
    return warn(subject, text + "; tallyhive-mailhost stat says which, and why");
  }
  return ok(subject, text);
}

std::string updateText(const Index& index, Date now) {
  const std::optional<Date> last = index.lastUpdate();
  if (!last) return "sound, never brought up to date to the end";
  return "sound, brought up to date " + ageText(now.unixSeconds() - last->unixSeconds()) + " ago";
}

/// The index, and the coverage when both can be used. `library`: null when it cannot.
Findings checkIndex(const HostFolders& folders, Library* library,
                    const std::vector<std::string>& mailFolders, bool inUse, Date now) {
  const std::string subject = "index";
  const DatabaseLook found = lookTwice(folders.index, inUse);
  const std::string remedy = inUse ? "; the host makes it anew"
                                   : "; tallyhive-mailhost index makes it anew, nothing is lost";
  switch (found.health) {
    case Health::kMissing:
      if (const auto refused = checkMakeable(subject, folders.index)) return {*refused};
      return {warn(subject, library != nullptr ? folders.index + " is gone" + remedy
                                               : "none yet; it comes with the library")};
    case Health::kUnreadable:
      return {fail(subject, fmt::format("{} cannot be read: {}; run chmod 600 on it, as its owner",
                                        folders.index, found.why))};
    case Health::kDamaged:
      return {fail(subject, folders.index + " is damaged: " + found.why + remedy)};
    case Health::kSound:
      break;
  }
  const auto index = Index::open(found.name, Index::Access::kReadOnly);
  if (!index) return {warn(subject, "it is of another version of this program" + remedy)};
  Findings findings = {ok(subject, updateText(**index, now))};
  if (library != nullptr) findings.push_back(checkCoverage(*library, **index, mailFolders, inUse));
  return findings;
}

}  // namespace

StoreLook checkStores(const HostFolders& folders, const std::vector<std::string>& mailFolders,
                      bool inUse, Date now) {
  LibraryLook library = checkLibrary(folders.library, inUse);
  StoreLook look{{std::move(library.finding)}, std::move(library.library)};
  for (Finding& finding : checkIndex(folders, look.library.get(), mailFolders, inUse, now)) {
    look.findings.push_back(std::move(finding));
  }
  return look;
}

}  // namespace thmp::doctor
