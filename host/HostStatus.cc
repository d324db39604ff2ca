// SPDX-License-Identifier: Apache-2.0
#include "host/HostStatus.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "host/index/Index.h"
#include "host/index/Indexer.h"
#include "host/store/Library.h"
#include "platform/linux/PasteboardFolder.h"

namespace thmp {
namespace {

namespace fs = std::filesystem;

std::uint64_t sizeOf(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return 0;
  return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

std::uint64_t sizeOfTree(const std::string& folder) {
  std::uint64_t size = 0;
  std::error_code error;
  fs::recursive_directory_iterator at(folder, fs::directory_options::skip_permission_denied, error);
  for (; !error && at != fs::recursive_directory_iterator(); at.increment(error)) {
    size += sizeOf(at->path().string());
  }
  return size;
}

std::uint64_t sizeOfDatabase(const std::string& path) {
  return sizeOf(path) + sizeOf(path + "-wal") + sizeOf(path + "-shm");
}

MailFolderStatus lookAtFolder(const Library& library, const std::string& path) {
  MailFolderStatus folder;
  folder.path = path;
  folder.reason = library.whyUnreachable(path);
  if (folder.reason.empty()) return folder;
  const bool isThere = ::access(path.c_str(), F_OK) == 0 || errno != ENOENT;
  folder.state = isThere && !isReadableFolder(path) ? MailFolderStatus::State::kUnreadable
                                                    : MailFolderStatus::State::kMissing;
  return folder;
}

Result<std::vector<MailFolderStatus>> lookAtFolders(const Library& library,
                                                    const std::vector<std::string>& named) {
  const auto mailboxes = library.mailboxes();
  if (!mailboxes) return mailboxes.error();
  const auto counts = library.messageCounts();
  if (!counts) return counts.error();
  std::vector<MailFolderStatus> folders;
  folders.reserve(named.size() + 1);
  for (const std::string& path : named) folders.push_back(lookAtFolder(library, path));
  for (const LibraryMailbox& mailbox : *mailboxes) {
    const auto isItsRoot = [&](const MailFolderStatus& one) {
      return one.path == mailbox.folder.root;
    };
    auto folder = std::find_if(folders.begin(), folders.end(), isItsRoot);
    if (folder == folders.end()) {
      folders.push_back({mailbox.folder.root, MailFolderStatus::State::kNoLongerNamed, {}, 0, 0});
      folder = std::prev(folders.end());
    }
    ++folder->mailboxes;
    const auto count = counts->find(mailbox.id);
    folder->messages += count == counts->end() ? 0 : count->second;
  }
  return folders;
}

Result<std::vector<IncompleteFile>> incompleteFiles(const Index& index, const Library& library,
                                                    std::size_t mostPaths) {
  auto listed = index.incomplete();
  if (!listed) return listed.error();
  std::vector<IncompleteFile> files;
  for (IncompleteMessage& one : *listed) {
    if (files.empty() || files.back().id != one.id) {
      IncompleteFile file;
      file.id = one.id;
      if (files.size() < mostPaths) file.path = library.pathOfMessage(one.id).value_or("");
      files.push_back(std::move(file));
    }
    files.back().reasons.push_back(std::move(one.reason));
  }
  return files;
}

// How the mail on disk compares with what is in the index.
Result<void> compareWithMail(Library& library, Index& index, const std::vector<std::string>& named,
                             HostStatus& status) {
  Indexer indexer(library, index);
  indexer.setRoots(named);
  const Result<Coverage> coverage = indexer.count();
  if (!coverage) return coverage.error();
  status.seen = coverage->seen;
  status.indexed = coverage->unchanged;
  // Those that could not be opened are tried again by each update, but nobody waits for them.
  const std::uint64_t notIndexed = coverage->seen - coverage->unchanged;
  status.waiting = notIndexed - std::min<std::uint64_t>(notIndexed, status.failed.size());
  return {};
}

}  // namespace

std::string whyNotOpen(const HostFolders& places) {
  for (const std::string& path : {places.library, places.index}) {
    if (::access(path.c_str(), R_OK) == 0) continue;
    const int number = errno;
    if (number != ENOENT && number != ENOTDIR) {
      return Error::posix(number, "cannot read " + path).description +
             "; tallyhive-mailhost doctor looks at all of it";
    }
    const auto keeper = HostLock::holder(places.lock);
    if (keeper) return keeper->text() + " has only begun to index; ask again in a moment";
    return path == places.library
               ? "nothing was indexed yet; begin with tallyhive-mailhost index --mail DIR"
               : "the index is gone; tallyhive-mailhost index makes it anew, nothing is lost";
  }
  return "library or index cannot be used; tallyhive-mailhost doctor says why";
}

Result<HostStatus> lookAtHost(const XdgFolders& xdg, const std::vector<std::string>& named,
                              std::size_t mostPaths) {
  const HostFolders places(xdg);
  HostStatus status;
  status.keeper = HostLock::holder(places.lock);
  const auto library = Library::open(places.library, Library::Access::kReadOnly);
  const auto index = Index::open(places.index, Index::Access::kReadOnly);
  if (!library || !index) return Error{"THMPHost", 3, whyNotOpen(places), nullptr};

  auto folders = lookAtFolders(**library, named);
  if (!folders) return folders.error();
  status.folders = *std::move(folders);
  auto failed = (*index)->failed();
  if (!failed) return failed.error();
  status.failed = *std::move(failed);
  auto incomplete = incompleteFiles(**index, **library, mostPaths);
  if (!incomplete) return incomplete.error();
  status.incomplete = *std::move(incomplete);
  status.lastUpdate = (*index)->lastUpdate();
  if (const Result<void> done = compareWithMail(**library, **index, named, status); !done) {
    return done.error();
  }
  status.librarySize = sizeOfDatabase(places.library);
  status.indexSize = sizeOfTree(places.caches);
  status.pasteboardsSize = sizeOfTree(PasteboardFolder(xdg.cache).path());
  return status;
}

}  // namespace thmp
