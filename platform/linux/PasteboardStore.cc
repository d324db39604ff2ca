// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PasteboardStore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "base/mutex.h"
#include "base/plist.h"
#include "platform/linux/PasteboardFolder.h"
#include "platform/linux/TemporaryFile.h"
#include "platform/linux/posix_io.h"

namespace thmp {
namespace {

constexpr std::size_t kTokenBytes = 8;
constexpr std::size_t kNameBytes = 16;

/// The part of a pasteboard's name that names its host; of a file in the locks' folder likewise.
std::string tokenOf(std::string_view name) {
  return std::string(name.substr(0, name.find_first_of("-.")));
}

/// Whether a host holds the lock file `token`. Where that cannot be found out, one does. The lock
/// stays held in `held` when nobody did.
bool hostLives(int locks, const std::string& token, Descriptor* held) {
  if (!isEntryName(token)) return false;
  Descriptor file = openAt(locks, token, O_RDWR | O_NONBLOCK | O_NOFOLLOW);
  if (!file) return errno != ENOENT && errno != ELOOP && errno != EISDIR && errno != ENXIO;
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) return true;
  *held = std::move(file);
  return false;
}

/// Removes what stands under names of dead hosts. The pasteboards are listed before any lock is
/// looked at: a host makes its lock file first.
void sweep(const PasteboardFolder& folder) {
  const Descriptor pasteboards = folder.openPasteboards(/*create=*/false);
  const auto left = pasteboards ? listFolder(pasteboards.get()) : std::nullopt;
  const Descriptor locks = folder.openLocks(/*create=*/false);
  if (!locks && errno != ENOENT) return;
  struct Host {
    bool lives = false;
    Descriptor lock;
  };
  std::map<std::string, Host> hosts;
  const auto lives = [&](const std::string& token) {
    const auto [host, added] = hosts.try_emplace(token);
    if (added && locks) host->second.lives = hostLives(locks.get(), token, &host->second.lock);
    return host->second.lives;
  };
  if (left) {
    for (const std::string& name : *left) {
      if (!lives(tokenOf(name))) removeTree(pasteboards.get(), name);
    }
  }
  const auto files = locks ? listFolder(locks.get()) : std::nullopt;
  if (!files) return;
  for (const std::string& name : *files) {
    if (!lives(tokenOf(name))) removeTree(locks.get(), name);
  }
}

}  // namespace

/// What the store and its pasteboards share, and outlive the store with.
class PasteboardStore::Shared {
 public:
  Shared(std::string cacheHome, SystemLog& log) : folder(std::move(cacheHome)), log_(log) {}

  ~Shared() {
    const Lock lock(mutex_);
    const Descriptor locks = lock_ ? folder.openLocks(/*create=*/false) : Descriptor();
    if (locks) ::unlinkat(locks.get(), token_.c_str(), 0);
  }

  const PasteboardFolder folder;

  std::string newName() const { return token_ + "-" + randomHex(kNameBytes); }
  std::string temporaryName() const { return token_ + ".tmp-" + randomHex(kNameBytes); }

  /// Makes sure that others see this host's lock, before it has anything that they could sweep. A
  /// cleaner may have taken the file away.
  bool holdLock() {
    const Lock lock(mutex_);
    const Descriptor locks = folder.openLocks(/*create=*/true);
    if (!locks) return false;
    struct stat held = {};
    const auto status = statAt(locks.get(), token_);
    if (lock_ && status && ::fstat(lock_.get(), &held) == 0 && sameFile(held, *status)) return true;
    // Locked before it has its name: no sweep ever meets it free. Where it must have another name
    // first, a sweep may take it in that moment.
    for (int attempt = 0; attempt < 3; ++attempt) {
      auto file = TemporaryFile::make(locks.get(), temporaryName());
      if (!file) return false;
      Descriptor own(::fcntl(file->descriptor(), F_DUPFD_CLOEXEC, 0));
      if (!own || ::flock(own.get(), LOCK_EX | LOCK_NB) != 0) return false;
      if (file->linkAs(locks.get(), token_)) {
        lock_ = std::move(own);
        return true;
      }
      if (errno == EEXIST) ::unlinkat(locks.get(), token_.c_str(), 0);
    }
    return false;
  }

  /// Tells once that a folder is refused.
  void tell(int errorNumber) {
    if (errorNumber != EPERM) return;
    {
      const Lock lock(mutex_);
      if (std::exchange(told_, true)) return;
    }
    log_.write("tallyhive: the pasteboard folder " + folder.path() +
               " is refused: it, or the one above it, is a link or not the user's own folder");
  }

 private:
  SystemLog& log_;
  const std::string token_ = randomHex(kTokenBytes);
  Mutex mutex_;
  Descriptor lock_ THMP_GUARDED_BY(mutex_);
  bool told_ THMP_GUARDED_BY(mutex_) = false;
};

namespace {

class StoredPasteboard final : public Pasteboard {
 public:
  StoredPasteboard(std::shared_ptr<PasteboardStore::Shared> shared, std::string name)
      : shared_(std::move(shared)), name_(std::move(name)) {}

  const std::string& name() const override { return name_; }

  void clearContents() override {
    const Lock lock(mutex_);
    clear();
  }

  void declareType(const std::string& /*type*/) override {
    // A type without content has no file.
    const Lock lock(mutex_);
    clear();
  }

  bool setPropertyList(const Value& propertyList, const std::string& type, Error* error) override {
    const Lock lock(mutex_);
    const auto fileName = PasteboardFolder::fileName(type);
    if (released_ || !fileName) {
      errno = released_ ? ENOENT : EINVAL;
      return failWithErrno(error, "cannot write the pasteboard " + name_);
    }
    const Descriptor folder = openFolder(/*create=*/true);
    if (folder) removeTree(folder.get(), *fileName);
    const auto bytes = writeBinaryPropertyList(propertyList, error);
    if (!bytes) return false;
    if (folder && store(folder.get(), *fileName, *bytes)) return true;
    const int number = errno;
    shared_->tell(number);
    errno = number;
    return failWithErrno(error, "cannot write the pasteboard " + name_);
  }

  void releaseGlobally() override {
    const Lock lock(mutex_);
    if (std::exchange(released_, true)) return;
    const Descriptor pasteboards = shared_->folder.openPasteboards(/*create=*/false);
    if (pasteboards) removeTree(pasteboards.get(), name_);
  }

  /// Makes the pasteboard's folder.
  bool make() {
    const Lock lock(mutex_);
    return static_cast<bool>(openFolder(/*create=*/true));
  }

 private:
  Descriptor openFolder(bool create) THMP_REQUIRES(mutex_) {
    if (create && !shared_->holdLock()) return Descriptor();
    const Descriptor pasteboards = shared_->folder.openPasteboards(create);
    if (!pasteboards) return Descriptor();
    return openOwnFolder(pasteboards.get(), name_, create);
  }

  void clear() THMP_REQUIRES(mutex_) {
    if (released_) return;
    const Descriptor folder = openFolder(/*create=*/false);
    const auto names = folder ? listFolder(folder.get()) : std::nullopt;
    if (!names) return;
    for (const std::string& each : *names) removeTree(folder.get(), each);
  }

  bool store(int folder, const std::string& fileName, const std::string& bytes)
      THMP_REQUIRES(mutex_) {
    const Descriptor locks = shared_->folder.openLocks(/*create=*/true);
    if (!locks) return false;
    auto file = TemporaryFile::make(locks.get(), shared_->temporaryName());
    return file && file->write(bytes) && file->finish() && file->linkAs(folder, fileName);
  }

  const std::shared_ptr<PasteboardStore::Shared> shared_;
  const std::string name_;
  Mutex mutex_;
  bool released_ THMP_GUARDED_BY(mutex_) = false;
};

}  // namespace

PasteboardStore::PasteboardStore(std::string cacheHome, SystemLog& log)
    : shared_(std::make_shared<Shared>(std::move(cacheHome), log)) {
  sweep(shared_->folder);
}

PasteboardStore::~PasteboardStore() = default;

std::shared_ptr<Pasteboard> PasteboardStore::makeUnique(Error* error) {
  auto pasteboard = std::make_shared<StoredPasteboard>(shared_, shared_->newName());
  if (pasteboard->make()) return pasteboard;
  const int number = errno;
  shared_->tell(number);
  errno = number;
  failWithErrno(error, "cannot make a pasteboard in " + shared_->folder.path());
  return nullptr;
}

}  // namespace thmp
