// SPDX-License-Identifier: Apache-2.0
#include "host/store/ChangeFeed.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "host/store/MailFolders.h"
#include "host/store/MountTable.h"

namespace thmp {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kWatched = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                   IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                                   IN_ONLYDIR | IN_EXCL_UNLINK;
// Of the folders above a mail folder, which take it along when they go.
constexpr std::uint32_t kWatchedAbove = IN_MOVE_SELF | IN_DELETE_SELF | IN_ATTRIB | IN_ONLYDIR;

// Signals are the main thread's.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t before_;
};

bool isLooseMessage(std::string_view name) {
  return name.ends_with(".eml") || name.ends_with(".emlx");
}

std::string below(const std::string& folder, std::string_view name) {
  return folder + (folder.ends_with('/') ? "" : "/") + std::string(name);
}

}  // namespace

class ChangeFeed::Impl {
 public:
  Impl(std::vector<std::string> roots, Changed changed, Report report, ChangeFeedOptions options)
      : roots_(std::move(roots)),
        changed_(std::move(changed)),
        report_(std::move(report)),
        options_(options) {}

  ~Impl() {
    stop();
    if (inotify_ >= 0) ::close(inotify_);
    if (wake_ >= 0) ::close(wake_);
  }

  void start() {
    wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    inotify_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (inotify_ < 0) doWithoutWatches(errno);
    mounts_.emplace(roots_);
    for (const std::string& root : roots_) watchRoot(root);
    const BlockedSignals blocked;
    thread_ = std::thread([this]() noexcept { run(); });
  }

  void stop() {
    stopping_.store(true);
    if (wake_ >= 0) {
      const std::uint64_t one = 1;
      [[maybe_unused]] const ssize_t written = ::write(wake_, &one, sizeof one);
    }
    if (thread_.joinable()) thread_.join();
  }

 private:
  struct Watch {
    std::string path;
    std::string root;
    std::string mailbox;  // whose message files stand in it
    bool isAboveRoots = false;
  };

  // The thread's part.

  void run() {
    while (!stopping_.load()) {
      waitForEvents();
      if (stopping_.load()) return;
      drain();
      lookAtMounts();
      lookForMissingRoots();
      remindWithoutWatches();
      if (!pending_.empty() && isTime()) tell();
    }
  }

  bool isTime() const {
    const auto now = Clock::now();
    return now - last_ >= options_.quiet || now - first_ >= options_.longest;
  }

  void tell() {
    MailChanges changes;
    std::swap(changes, pending_);
    if (changes.everything) {
      changes.mailboxes.clear();
      changes.files.clear();
      changes.trees.clear();
    }
    changed_(changes);
  }

  void waitForEvents() {
    std::array<pollfd, 3> files{
        {{wake_, POLLIN, 0}, {inotify_, POLLIN, 0}, {mounts_->descriptor(), POLLPRI, 0}}};
    ::poll(files.data(), files.size(), timeout());
    mountsChanged_ |= files[2].revents != 0;
  }

  // Milliseconds until there is something to do without an event.
  int timeout() const {
    std::optional<Clock::time_point> due;
    const auto atLatest = [&](Clock::time_point when) { due = due ? std::min(*due, when) : when; };
    if (!pending_.empty()) {
      atLatest(std::min(last_ + options_.quiet, first_ + options_.longest));
    }
    if (!missingRoots_.empty()) atLatest(nextRootCheck_);
    if (withoutWatches_) atLatest(nextReminder_);
    if (!due) return -1;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(*due - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left + 1, 0, 60'000));
  }

  void drain() {
    if (inotify_ < 0) return;
    alignas(inotify_event) std::array<char, 65536> buffer;
    for (;;) {
      const ssize_t got = ::read(inotify_, buffer.data(), buffer.size());
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return;
      for (ssize_t at = 0; at < got;) {
        inotify_event event;
        std::memcpy(&event, buffer.data() + at, sizeof event);
        const char* name = buffer.data() + at + sizeof event;
        handle(event, event.len == 0 ? std::string_view() : std::string_view(name));
        at += static_cast<ssize_t>(sizeof event + event.len);
      }
    }
  }

  void handle(const inotify_event& event, std::string_view name) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      note([](MailChanges& changes) { changes.everything = true; });
      for (const std::string& root : roots_) watchRoot(root);
      lookForLostRoots();
      return;
    }
    const auto found = watches_.find(event.wd);
    if (found == watches_.end()) return;
    const Watch watch = found->second;
    if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED)) != 0) {
      folderGone(event.wd, watch);
    } else if ((event.mask & IN_ATTRIB) != 0) {
      rightsChanged(event, watch, name);
    } else if ((event.mask & IN_ISDIR) != 0) {
      folderChanged(event, watch, name);
    } else if (!watch.mailbox.empty()) {
      note([&](MailChanges& changes) { addChanged(watch, name, changes); });
    } else if (isLooseMessage(name)) {
      // The first loose message makes its folder a mailbox.
      watchTree(watch.root, watch.path);
      note([&](MailChanges& changes) { changes.trees.insert(watch.path); });
    }
  }

  // Of a Maildir the file alone; elsewhere what one file means depends on others.
  static void addChanged(const Watch& watch, std::string_view name, MailChanges& changes) {
    for (const std::string_view part : {"cur", "new"}) {
      if (watch.path != below(watch.mailbox, part)) continue;
      return changes.addFile(watch.mailbox, below(std::string(part), name));
    }
    changes.addMailbox(watch.mailbox);
  }

  void folderGone(int wd, const Watch& watch) {
    ::inotify_rm_watch(inotify_, wd);
    watches_.erase(wd);
    const auto byPath = descriptors_.find(watch.path);
    if (byPath != descriptors_.end() && byPath->second == wd) descriptors_.erase(byPath);
    if (watch.isAboveRoots) return rootsGoneBelow(watch.path);
    // `cur` or `new` makes its mailbox come and go.
    const std::string& tree = watch.mailbox.empty() ? watch.path : watch.mailbox;
    note([&](MailChanges& changes) { changes.trees.insert(tree); });
    if (watch.path == watch.root) rootGone(watch.root);
  }

  // Of files it says nothing about their content, of folders that they may be readable now, or not.
  void rightsChanged(const inotify_event& event, const Watch& watch, std::string_view name) {
    if ((event.mask & IN_ISDIR) == 0) return;
    if (watch.isAboveRoots || name.empty()) return lookForLostRoots();
    const std::string tree = treeOf(below(watch.path, name));
    watchTree(watch.root, tree);
    note([&](MailChanges& changes) { changes.trees.insert(tree); });
  }

  void lookForLostRoots() {
    for (const std::string& root : roots_) {
      if (!missingRoots_.contains(root) && !isReadableFolder(root)) rootGone(root);
    }
  }

  // Another folder may stand in its place already.
  void rootsGoneBelow(const std::string& folder) {
    for (const std::string& root : roots_) {
      if (isAtOrBelow(root, folder)) rootGone(root);
    }
  }

  void lookAtMounts() {
    if (!std::exchange(mountsChanged_, false)) return;
    for (const std::string& place : mounts_->changes()) {
      rootsGoneBelow(place);
      for (const std::string& root : roots_) {
        if (place == root || !isAtOrBelow(place, root)) continue;
        forgetBelow(place);
        const std::string tree = treeOf(place);
        watchTree(root, tree);
        note([&](MailChanges& changes) { changes.trees.insert(tree); });
      }
      nextRootCheck_ = Clock::now();
    }
  }

  // What was watched below it may live on elsewhere, where it is of no concern.
  void rootGone(const std::string& root) {
    forgetBelow(root);
    note([&](MailChanges& changes) { changes.trees.insert(root); });
    rootMissing(root);
  }

  void folderChanged(const inotify_event& event, const Watch& watch, std::string_view name) {
    const std::string path = below(watch.path, name);
    const std::string tree = treeOf(path);
    if ((event.mask & (IN_MOVED_FROM | IN_DELETE)) != 0) {
      forgetBelow(path);
      lookForLostRoots();  // one mail folder may lie in another
    } else {
      watchTree(watch.root, tree);
    }
    note([&](MailChanges& changes) { changes.trees.insert(tree); });
  }

  // `cur` and `new` make the mailbox that they are parts of.
  static std::string treeOf(const std::string& folder) {
    const std::size_t slash = folder.rfind('/');
    const std::string_view name = std::string_view(folder).substr(slash + 1);
    return slash > 0 && (name == "cur" || name == "new") ? folder.substr(0, slash) : folder;
  }

  template <typename Change>
  void note(const Change& change) {
    last_ = Clock::now();
    if (pending_.empty()) first_ = last_;
    change(pending_);
  }

  void forgetBelow(const std::string& path) {
    for (auto at = watches_.begin(); at != watches_.end();) {
      const std::string& watched = at->second.path;
      if (watched == path || watched.starts_with(path + "/")) {
        ::inotify_rm_watch(inotify_, at->first);
        descriptors_.erase(watched);
        at = watches_.erase(at);
      } else {
        ++at;
      }
    }
  }

  void watchRoot(const std::string& root) {
    watchTree(root, root);
    for (std::size_t end = root.rfind('/'); inotify_ >= 0 && end != std::string::npos;
         end = end == 0 ? std::string::npos : root.rfind('/', end - 1)) {
      const std::string above = end == 0 ? "/" : root.substr(0, end);
      if (above == root || isInTree(above)) continue;
      const int wd = ::inotify_add_watch(inotify_, above.c_str(), kWatchedAbove);
      if (wd < 0) continue;  // one that cannot be read
      watches_[wd] = Watch{above, root, {}, /*isAboveRoots=*/true};
      descriptors_[above] = wd;
    }
  }

  // Whether `folder` is watched as part of a mail folder.
  bool isInTree(const std::string& folder) const {
    const auto known = descriptors_.find(folder);
    if (known == descriptors_.end()) return false;
    const auto watch = watches_.find(known->second);
    return watch != watches_.end() && !watch->second.isAboveRoots;
  }

  // Watches what stands below `folder`, again where it is new; used before the thread begins, too.
  void watchTree(const std::string& root, const std::string& folder) {
    if (inotify_ < 0) return;
    // A folder made between the walk and the watch on the one above it is found by the next round.
    for (std::size_t before = watches_.size() + 1; before != watches_.size();) {
      before = watches_.size();
      const MailTree tree = walkMail(root, folder);
      if (folder == root && !tree.rootIsThere) rootMissing(root);
      for (const WalkedFolder& walked : tree.folders) {
        if (!watch(root, walked)) return;
      }
    }
  }

  bool watch(const std::string& root, const WalkedFolder& folder) {
    const bool known = descriptors_.contains(folder.path);
    if (!known && options_.maxWatches != 0 && watches_.size() >= options_.maxWatches) {
      doWithoutWatches(ENOSPC);
      return false;
    }
    const std::uint32_t links = folder.path == root ? 0U : std::uint32_t{IN_DONT_FOLLOW};
    const int wd = ::inotify_add_watch(inotify_, folder.path.c_str(), kWatched | links);
    if (wd < 0) {
      const int why = errno;
      if (why != ENOSPC && why != ENOMEM) return true;  // it went meanwhile, or cannot be read
      doWithoutWatches(why);
      return false;
    }
    watches_[wd] = Watch{folder.path, root, folder.mailbox, /*isAboveRoots=*/false};
    descriptors_[folder.path] = wd;
    return true;
  }

  void rootMissing(const std::string& root) {
    if (missingRoots_.insert(root).second) {
      nextRootCheck_ = Clock::now() + options_.missingRootCheck;
    }
  }

  void lookForMissingRoots() {
    if (missingRoots_.empty() || Clock::now() < nextRootCheck_) return;
    nextRootCheck_ = Clock::now() + options_.missingRootCheck;
    const std::set<std::string> missing = missingRoots_;
    for (const std::string& root : missing) {
      if (!isReadableFolder(root)) continue;
      missingRoots_.erase(root);
      watchRoot(root);
      note([&](MailChanges& changes) { changes.trees.insert(root); });
    }
  }

  void doWithoutWatches(int why) {
    if (withoutWatches_) return;
    withoutWatches_ = true;
    nextReminder_ = Clock::now() + options_.withoutWatches;
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(options_.withoutWatches).count();
    if (report_) {
      report_("cannot watch all mail folders (" + std::generic_category().message(why) +
              "): looking through them every " + std::to_string(seconds) + " seconds");
    }
  }

  void remindWithoutWatches() {
    if (!withoutWatches_ || Clock::now() < nextReminder_) return;
    nextReminder_ = Clock::now() + options_.withoutWatches;
    note([](MailChanges& changes) { changes.everything = true; });
  }

  const std::vector<std::string> roots_;
  const Changed changed_;
  const Report report_;
  const ChangeFeedOptions options_;
  int inotify_ = -1;
  int wake_ = -1;
  std::optional<MountTable> mounts_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;

  // Of start(), and then of the thread.
  std::unordered_map<int, Watch> watches_;
  std::unordered_map<std::string, int> descriptors_;
  std::set<std::string> missingRoots_;
  MailChanges pending_;
  bool withoutWatches_ = false;
  bool mountsChanged_ = false;
  Clock::time_point first_{};
  Clock::time_point last_{};
  Clock::time_point nextRootCheck_{};
  Clock::time_point nextReminder_{};
};

void MailChanges::addMailbox(const std::string& path) {
  mailboxes.insert(path);
  files.erase(path);
}

void MailChanges::addFile(const std::string& mailbox, const std::string& file) {
  // Of more it is quicker to look at all.
  constexpr std::size_t kMostFiles = 256;
  if (mailboxes.contains(mailbox)) return;
  std::set<std::string>& those = files[mailbox];
  those.insert(file);
  if (those.size() > kMostFiles) addMailbox(mailbox);
}

void MailChanges::addAll(const MailChanges& changes) {
  everything = everything || changes.everything;
  for (const std::string& path : changes.mailboxes) addMailbox(path);
  for (const auto& [mailbox, those] : changes.files) {
    for (const std::string& file : those) addFile(mailbox, file);
  }
  trees.insert(changes.trees.begin(), changes.trees.end());
}

ChangeFeed::ChangeFeed(std::vector<std::string> roots, Changed changed, Report report,
                       ChangeFeedOptions options)
    : impl_(std::make_unique<Impl>(std::move(roots), std::move(changed), std::move(report),
                                   options)) {}

ChangeFeed::~ChangeFeed() = default;

void ChangeFeed::start() { impl_->start(); }

void ChangeFeed::stop() { impl_->stop(); }

}  // namespace thmp
