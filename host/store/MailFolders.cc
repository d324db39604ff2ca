// SPDX-License-Identifier: Apache-2.0
#include "host/store/MailFolders.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <system_error>

#include "host/store/folder_names.h"
#include "host/store/header_text.h"
#include "platform/linux/utf8.h"

namespace thmp {

namespace {

// In the order in which they are listed: mail moves from `new` to `cur`, and so a move in between
// shows it twice, not never.
constexpr std::array<const char*, 2> kMaildirParts{"new", "cur"};

constexpr std::string_view kMboxSuffix = ".mbox";
constexpr std::string_view kEmlSuffix = ".eml";
constexpr std::string_view kEmlxSuffix = ".emlx";
constexpr std::string_view kPartialSuffix = ".partial.emlx";

struct CloseDir {
  void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, CloseDir>;

std::string wordsFor(int errorNumber) { return std::generic_category().message(errorNumber); }

DirHandle openFolder(const std::string& path, bool followLink) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK |
                                          (followLink ? 0 : O_NOFOLLOW));
  if (fd < 0) return nullptr;
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    const int saved = errno;
    ::close(fd);
    errno = saved;
  }
  return DirHandle(dir);
}

FolderIdentity identityOf(DIR* dir) {
  struct stat status {};
  if (::fstat(::dirfd(dir), &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

bool isOwnOrParent(std::string_view name) { return name == "." || name == ".."; }

enum class EntryKind : std::uint8_t { kFolder, kFile, kLink, kOther };

EntryKind kindOf(DIR* dir, const dirent& entry) {
  switch (entry.d_type) {
    case DT_DIR:
      return EntryKind::kFolder;
    case DT_REG:
      return EntryKind::kFile;
    case DT_LNK:
      return EntryKind::kLink;
    case DT_UNKNOWN:
      break;
    default:
      return EntryKind::kOther;
  }
  struct stat status {};
  if (::fstatat(::dirfd(dir), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return EntryKind::kOther;
  }
  if (S_ISDIR(status.st_mode)) return EntryKind::kFolder;
  if (S_ISLNK(status.st_mode)) return EntryKind::kLink;
  return S_ISREG(status.st_mode) ? EntryKind::kFile : EntryKind::kOther;
}

// Calls `visit` with each entry but "." and "..". Returns 0, or the error that ended the listing.
template <typename Visit>
int forEachEntry(DIR* dir, const Visit& visit) {
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(dir);
    if (entry == nullptr) return errno;
    const std::string_view name(entry->d_name);
    if (isOwnOrParent(name)) continue;
    visit(name, kindOf(dir, *entry));
  }
}

std::string joined(const std::string& folder, std::string_view name) {
  std::string path = folder;
  if (path.empty() || path.back() != '/') path.push_back('/');
  path.append(name);
  return path;
}

bool isEml(std::string_view name) { return name.ends_with(kEmlSuffix) && name[0] != '.'; }
bool isEmlx(std::string_view name) { return name.ends_with(kEmlxSuffix) && name[0] != '.'; }

class Walk {
 public:
  Walk(std::string root, const std::string& folder) : root_(std::move(root)) {
    pending_.push_back({folder, mboxAbove(folder)});
  }

  MailTree run() {
    bool first = true;
    while (!pending_.empty()) {
      Pending next = std::move(pending_.back());
      pending_.pop_back();
      visit(next, first);
      first = false;
    }
    for (auto& [path, folder] : mailboxes_) tree_.mailboxes.push_back(std::move(folder));
    return std::move(tree_);
  }

 private:
  struct Pending {
    std::string path;
    std::string mbox;  // the nearest NAME.mbox at or above it
  };
  struct Contents {
    std::vector<std::string> folders;
    bool hasCur = false;
    bool hasNew = false;
    bool hasEml = false;
    bool hasEmlx = false;
    bool hasDotFolder = false;
  };

  std::string mboxAbove(const std::string& folder) const {
    if (folder.size() <= root_.size()) return {};
    std::string above = folder.substr(0, folder.rfind('/'));
    while (above.size() >= root_.size() && !above.empty()) {
      if (above.ends_with(kMboxSuffix)) return above;
      above = above.substr(0, above.rfind('/'));
    }
    return {};
  }

  void visit(const Pending& at, bool isStart) {
    const DirHandle dir = openFolder(at.path, isStart);
    if (!dir) {
      const int why = errno;
      if (why == ENOENT && !isStart) tree_.vanished.push_back(at.path);
      if (why != ENOENT && why != ENOTDIR && why != ELOOP) {
        tree_.unreadable.push_back({at.path, wordsFor(why)});
      }
      return;
    }
    Contents contents;
    const int error = forEachEntry(dir.get(), [&](std::string_view name, EntryKind kind) {
      note(at.path, name, kind, contents);
    });
    if (error != 0) tree_.unreadable.push_back({at.path, wordsFor(error)});
    if (isStart && at.path == root_) {
      tree_.rootIsThere = error == 0;
      tree_.rootIdentity = identityOf(dir.get());
    }
    const std::string mbox = at.path.ends_with(kMboxSuffix) ? at.path : at.mbox;
    settle(at.path, mbox, contents);
  }

  void note(const std::string& folder, std::string_view name, EntryKind kind, Contents& contents) {
    if (kind == EntryKind::kFile || kind == EntryKind::kLink) {
      contents.hasEml |= isEml(name);
      contents.hasEmlx |= isEmlx(name);
    }
    if (kind != EntryKind::kFolder) return;
    const std::string path = joined(folder, name);
    if (!isUtf8(name)) {
      tree_.failed.push_back({escapedPath(path), "its path is not UTF-8"});
      return;
    }
    contents.hasCur |= name == "cur";
    contents.hasNew |= name == "new";
    contents.hasDotFolder |= name[0] == '.';
    contents.folders.push_back(path);
  }

  void settle(const std::string& path, const std::string& mbox, const Contents& contents) {
    const bool isMaildir = contents.hasCur && contents.hasNew;
    std::string mailbox;
    if (isMaildir) {
      mailbox = path;
      add(path, MessageFormat::kMaildir, contents.hasDotFolder);
      for (const char* part : {"/cur", "/new"}) tree_.folders.push_back({path + part, path});
    } else {
      if (contents.hasEmlx) {
        mailbox = mbox.empty() ? path : mbox;
        add(mailbox, MessageFormat::kEmlx, false);
      }
      if (contents.hasEml && mailbox != path) {
        mailbox = path;
        add(path, MessageFormat::kEml, false);
      }
    }
    tree_.folders.push_back({path, isMaildir ? std::string() : mailbox});
    for (const std::string& below : contents.folders) {
      const std::string_view name = std::string_view(below).substr(below.rfind('/') + 1);
      if (isMaildir && (name == "cur" || name == "new" || name == "tmp")) continue;
      pending_.push_back({below, mbox});
    }
  }

  void add(const std::string& path, MessageFormat format, bool hasDotFolder) {
    const auto [place, isNew] = mailboxes_.try_emplace(path);
    MailFolder& folder = place->second;
    if (!isNew && folder.format == MessageFormat::kEmlx) return;
    folder.path = path;
    folder.root = root_;
    folder.format = format;
    folder.identifier = mailboxIdentifier(root_, path, hasDotFolder);
  }

  const std::string root_;
  std::vector<Pending> pending_;
  std::map<std::string, MailFolder> mailboxes_;
  MailTree tree_;
};

struct FolderTime {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  friend auto operator<=>(const FolderTime&, const FolderTime&) = default;
};

FolderTime modified(DIR* dir) {
  struct stat status {};
  if (::fstat(::dirfd(dir), &status) != 0) return {};
  return {status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

// After a change as young as this another one could leave the folder's times as they are: clocks of
// file systems take steps of up to two seconds.
constexpr std::int64_t kSettledSeconds = 3;

// All that tells whether a folder has changed. The times of changes cannot be set back.
std::string stampOf(const struct stat& folder) {
  const std::array<std::int64_t, 6> numbers{static_cast<std::int64_t>(folder.st_dev),
                                            static_cast<std::int64_t>(folder.st_ino),
                                            folder.st_mtim.tv_sec,
                                            folder.st_mtim.tv_nsec,
                                            folder.st_ctim.tv_sec,
                                            folder.st_ctim.tv_nsec};
  return {reinterpret_cast<const char*>(numbers.data()), sizeof numbers};
}

// The clock that file systems stamp their changes with.
FolderTime stampNow() {
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return {now.tv_sec, now.tv_nsec};
}

class Lister {
 public:
  explicit Lister(const MailFolder& mailbox) : mailbox_(mailbox) {}

  Result<MailboxListing> run() {
    listing_.quiet = true;
    if (mailbox_.format == MessageFormat::kMaildir) {
      for (const char* part : kMaildirParts) listFolder(part, false);
      checkQuiet();
      putStamp();
    } else {
      listFolder("",
                 mailbox_.format == MessageFormat::kEmlx && mailbox_.path.ends_with(kMboxSuffix));
      checkQuiet();
    }
    if (error_ != 0) return Error::posix(error_, "cannot list " + mailbox_.path);
    std::sort(listing_.entries.begin(), listing_.entries.end());
    return std::move(listing_);
  }

 private:
  struct Listed {
    DirHandle dir;
    FolderTime before;
    struct stat status;  // before as well
    FolderTime started;
  };

  void listFolder(const std::string& start, bool below) {
    std::vector<std::string> pending{start};
    while (!pending.empty()) {
      const std::string part = std::move(pending.back());
      pending.pop_back();
      listOne(part, below ? &pending : nullptr);
    }
  }

  void listOne(const std::string& part, std::vector<std::string>* below) {
    const std::string path = part.empty() ? mailbox_.path : joined(mailbox_.path, part);
    const FolderTime started = stampNow();
    DirHandle dir = openFolder(path, part.empty());
    if (!dir) {
      if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) {
        if (below == nullptr || part.empty()) listing_.gone = true;
        listing_.quiet = false;
      } else {
        error_ = errno;
      }
      return;
    }
    const FolderTime before = modified(dir.get());
    struct stat status {};
    hasLinks_ = hasLinks_ || ::fstat(::dirfd(dir.get()), &status) != 0;
    const int error = forEachEntry(dir.get(), [&](std::string_view name, EntryKind kind) {
      if (kind == EntryKind::kFile || kind == EntryKind::kLink) addFile(path, part, name);
      hasLinks_ = hasLinks_ || kind == EntryKind::kLink;
      if (kind == EntryKind::kFolder && below != nullptr && !name.ends_with(kMboxSuffix) &&
          isUtf8(name)) {
        below->push_back(part.empty() ? std::string(name) : joined(part, name));
      }
    });
    if (error != 0) error_ = error;
    // A stamp that is not older than the listing may hide a change that followed.
    if (!(before < started)) listing_.quiet = false;
    if (below == nullptr) {
      held_.push_back({std::move(dir), before, status, started});
    } else if (modified(dir.get()) != before) {
      listing_.quiet = false;
    }
  }

  void checkQuiet() {
    for (const Listed& folder : held_) {
      if (modified(folder.dir.get()) != folder.before) listing_.quiet = false;
    }
  }

  void putStamp() {
    if (!listing_.quiet || hasLinks_ || !listing_.failed.empty()) return;
    for (const Listed& folder : held_) {
      if (folder.before.seconds + kSettledSeconds >= folder.started.seconds) {
        listing_.stamp.clear();
        return;
      }
      listing_.stamp += stampOf(folder.status);
    }
  }

  bool isMessageFile(const std::string& part, std::string_view name) const {
    switch (mailbox_.format) {
      case MessageFormat::kMaildir:
        return name[0] != '.';
      case MessageFormat::kEml:
        return isEml(name);
      case MessageFormat::kEmlx:
        return isEmlx(name) || (part.empty() && isEml(name));
    }
    return false;
  }

  void addFile(const std::string& folder, const std::string& part, std::string_view name) {
    if (!isMessageFile(part, name)) return;
    if (!isUtf8(name)) {
      listing_.failed.push_back({escapedPath(joined(folder, name)), "its path is not UTF-8"});
      return;
    }
    if (mailbox_.format == MessageFormat::kMaildir) {
      listing_.entries.push_back(*maildirEntry(part, name));
      return;
    }
    std::string known(name);
    if (known.ends_with(kPartialSuffix)) {
      known = known.substr(0, known.size() - kPartialSuffix.size()) + std::string(kEmlxSuffix);
    }
    listing_.entries.push_back({std::move(known), part, std::string(name)});
  }

  const MailFolder& mailbox_;
  MailboxListing listing_;
  std::vector<Listed> held_;
  bool hasLinks_ = false;  // or what else no folder's time tells of
  int error_ = 0;
};

}  // namespace

MailTree walkMail(const std::string& root, const std::string& folder) {
  return Walk(root, folder).run();
}

Result<MailboxListing> listMailbox(const MailFolder& mailbox) { return Lister(mailbox).run(); }

std::string mailboxStamp(const MailFolder& mailbox) {
  std::string stamp;
  if (mailbox.format != MessageFormat::kMaildir) return stamp;
  for (const char* part : kMaildirParts) {
    struct stat status {};
    if (::lstat(joined(mailbox.path, part).c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      return {};
    }
    stamp += stampOf(status);
  }
  return stamp;
}

std::optional<MessageEntry> maildirEntry(std::string_view part, std::string_view file) {
  if (file.empty() || file[0] == '.' || !isUtf8(file)) return std::nullopt;
  return MessageEntry{std::string(file.substr(0, file.rfind(":2,"))), std::string(part),
                      std::string(file)};
}

MessageFormat messageFormat(MessageFormat mailbox, std::string_view file) {
  if (mailbox == MessageFormat::kMaildir) return mailbox;
  return file.ends_with(kEmlxSuffix) ? MessageFormat::kEmlx : MessageFormat::kEml;
}

std::string messagePath(std::string_view mailboxPath, std::string_view part,
                        std::string_view file) {
  std::string path;
  path.reserve(mailboxPath.size() + part.size() + file.size() + 2);
  path = mailboxPath;
  const auto append = [&path](std::string_view name) {
    if (path.empty() || path.back() != '/') path.push_back('/');
    path += name;
  };
  if (!part.empty()) append(part);
  append(file);
  return path;
}

std::int64_t deliverySecond(std::string_view fileName) {
  std::int64_t second = -1;
  const auto [end, error] =
      std::from_chars(fileName.data(), fileName.data() + fileName.size(), second);
  if (error != std::errc() || end == fileName.data() || fileName[0] == '-') return -1;
  return isDateInRange(second) ? second : -1;
}

FolderLook lookAt(const std::string& folder) {
  FolderLook look;
  const DirHandle dir = openFolder(folder, /*followLink=*/true);
  if (!dir) {
    look.unreadable = wordsFor(errno);
    return look;
  }
  look.identity = identityOf(dir.get());
  look.isEmpty = true;
  for (errno = 0; const dirent* entry = ::readdir(dir.get()); errno = 0) {
    if (isOwnOrParent(entry->d_name)) continue;
    look.isEmpty = false;
    return look;
  }
  if (errno != 0) look.unreadable = wordsFor(errno);
  return look;
}

bool isReadableFolder(const std::string& path) { return lookAt(path).unreadable.empty(); }

bool isAtOrBelow(const std::string& path, const std::string& folder) {
  return path == folder || (path.size() > folder.size() && path.starts_with(folder) &&
                            (folder.ends_with('/') || path[folder.size()] == '/'));
}

}  // namespace thmp
