// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/InotifyWatches.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/mutex.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/LinuxSerialQueue.h"
#include "platform/linux/thread.h"

namespace thmp {
namespace {

constexpr std::uint32_t kFolderItself = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t kEntries = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kGone = kFolderItself | IN_IGNORED | IN_UNMOUNT;

/// One watch and what the registry keeps of it.
struct Watched {
  Watched(std::string path, InotifyWatches::Poster poster, std::function<void()> callback,
          std::uint32_t more, InotifyWatches::Gone goneCallback)
      : directory(std::move(path)),
        post(std::move(poster)),
        moreEvents(more),
        tellsNames(goneCallback != nullptr),
        changed(std::move(callback)),
        gone(std::move(goneCallback)) {
    prefixes.emplace_back("/");
    names.emplace_back();
    for (std::size_t begin = 0; begin < directory.size();) {
      const std::size_t end = std::min(directory.find('/', begin), directory.size());
      if (end > begin) {
        names.push_back(directory.substr(begin, end - begin));
        prefixes.push_back(directory.substr(0, end));
      }
      begin = end + 1;
    }
    numbers.assign(prefixes.size(), -1);
  }

  // Constant.
  const std::string directory;
  const InotifyWatches::Poster post;
  const std::uint32_t moreEvents;
  const bool tellsNames;
  std::vector<std::string> prefixes;  // "/", "/a", "/a/b", the last one the folder itself
  std::vector<std::string> names;     // "", "a", "b"

  std::atomic<bool> resumed = false;
  std::atomic<bool> cancelled = false;
  std::atomic<bool> pending = false;

  /// On the watch's queue only.
  std::function<void()> changed;
  InotifyWatches::Gone gone;

  Mutex namesMutex;
  std::vector<std::string> goneNames THMP_GUARDED_BY(namesMutex);  // not yet told

  // Under the registry's mutex.
  std::vector<int> numbers;  // inotify's watch number for each prefix, -1 without one
  bool refused = false;      // by the system, and the user has been told
};

void report(const std::shared_ptr<Watched>& watched) {
  if (watched->cancelled || watched->pending.exchange(true)) return;
  try {
    watched->post([watched] {
      // Before the call: a change during it is told by another one.
      watched->pending = false;
      std::vector<std::string> names;
      {
        const Lock lock(watched->namesMutex);
        names.swap(watched->goneNames);
      }
      if (!watched->cancelled) watched->changed();
      if (!watched->cancelled && !names.empty()) watched->gone(names);
    });
  } catch (...) {
    watched->pending = false;
    throw;
  }
}

/// What is to be done once the registry's mutex is free again.
struct Outcome {
  std::vector<std::shared_ptr<Watched>> reports;
  std::vector<std::string> lines;
};

}  // namespace

class InotifyWatches::Registry : public std::enable_shared_from_this<Registry> {
 public:
  Registry(SystemLog& log, MakeInstance makeInstance, std::shared_ptr<LinuxSerialQueue> queue)
      : log_(log), makeInstance_(std::move(makeInstance)), queue_(std::move(queue)) {}

  void add(const std::shared_ptr<Watched>& watched) {
    Outcome outcome;
    {
      const Lock lock(mutex_);
      if (ended_) return;
      watches_.push_back(watched);
      arm(watched, outcome);
    }
    // The caller looks at the folder itself once the watch runs.
    outcome.reports.clear();
    carryOut(outcome);
  }

  void remove(const std::shared_ptr<Watched>& watched) {
    const Lock lock(mutex_);
    std::erase(watches_, watched);
    use(watched, std::vector<int>(watched->numbers.size(), -1));
  }

  void retry() {
    Outcome outcome;
    {
      const Lock lock(mutex_);
      for (const auto& watched : watches_) {
        if (watched->numbers.back() < 0) arm(watched, outcome);
      }
    }
    carryOut(outcome);
  }

  void end() {
    std::thread reader;
    {
      const Lock lock(mutex_);
      ended_ = true;
      if (queue_ && instance_) queue_->unwatchDescriptor();
      reader.swap(reader_);
      const std::uint64_t one = 1;
      if (stop_) {
        [[maybe_unused]] const ssize_t written = ::write(stop_.get(), &one, sizeof one);
      }
    }
    if (reader.joinable()) reader.join();
    // Until a reading that has begun is over.
    const Lock reading(reading_);
  }

 private:
  struct Use {
    std::shared_ptr<Watched> watched;
    std::size_t level;
  };

  void carryOut(const Outcome& outcome) {
    for (const std::string& line : outcome.lines) log_.write(line);
    for (const auto& watched : outcome.reports) report(watched);
  }

  /// The instance and its reader, made at the first need. 0, or why there is none.
  int start() THMP_REQUIRES(mutex_) {
    if (instance_) return 0;
    auto instance = std::make_shared<const Descriptor>(makeInstance_());
    if (!*instance) return errno;
    const int failure = queue_ ? readOnQueue(instance) : readOnThread(instance->get());
    if (failure == 0) instance_ = std::move(instance);
    return failure;
  }

  int readOnQueue(const std::shared_ptr<const Descriptor>& instance) THMP_REQUIRES(mutex_) {
    const bool watched =
        queue_->watchDescriptor(instance, [weakSelf = weak_from_this(), in = instance->get()] {
          if (const auto self = weakSelf.lock()) self->read(in);
        });
    return watched ? 0 : errno;
  }

  int readOnThread(int instance) THMP_REQUIRES(mutex_) {
    Descriptor stop(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stop) return errno;
    reader_ = startThread("folder-watches", [this, instance, end = stop.get()] {
      for (;;) {
        std::array<pollfd, 2> ready = {{{instance, POLLIN, 0}, {end, POLLIN, 0}}};
        if (::poll(ready.data(), ready.size(), -1) < 0) continue;  // EINTR, or memory is short
        if (ready[1].revents != 0) return;
        runGuarded([this, instance] { read(instance); });
      }
    });
    stop_ = std::move(stop);
    return reader_.joinable() ? 0 : EAGAIN;
  }

  int addWatch(const std::string& path, std::uint32_t events) THMP_REQUIRES(mutex_) {
    // Several watches may share a folder, and then share its number: events are only ever added.
    return ::inotify_add_watch(instance_->get(), path.c_str(), events | IN_ONLYDIR | IN_MASK_ADD);
  }

  /// Watches the whole way to the folder as it is now. Reports when the folder is another one than
  /// before.
  void arm(const std::shared_ptr<Watched>& watched, Outcome& outcome) THMP_REQUIRES(mutex_) {
    const std::size_t last = watched->prefixes.size() - 1;
    std::vector<int> numbers(last + 1, -1);
    int number = start();
    if (number == 0) number = watchTheWay(*watched, numbers);
    const bool refused = number == ENOSPC || number == ENOMEM || number == EMFILE ||
                         number == ENFILE || number == EAGAIN || number == EACCES;
    const bool another = numbers[last] >= 0 && numbers[last] != watched->numbers[last];
    if (refused && !watched->refused) {
      outcome.lines.push_back("tallyhive: the folder " + watched->directory +
                              " cannot be watched: " + Error::posix(number, "inotify").description);
    }
    watched->refused = refused;
    use(watched, numbers);
    if (another) outcome.reports.push_back(watched);
  }

  /// From the top down, so that what changes below while we go is seen by what is watched already.
  /// 0, or why the folder is not watched.
  int watchTheWay(const Watched& watched, std::vector<int>& numbers) THMP_REQUIRES(mutex_) {
    const std::size_t last = watched.prefixes.size() - 1;
    for (std::size_t level = 0; level <= last; ++level) {
      const std::string& path = watched.prefixes[level];
      std::uint32_t events = kFolderItself;
      if (level + 1 >= last) events |= kEntries;
      if (level == last) events |= watched.moreEvents;
      numbers[level] = addWatch(path, events);
      if (numbers[level] >= 0) continue;
      int number = errno;
      if (number == ENOSPC || number == ENOMEM) return number;
      if (number == EACCES && level < last) continue;  // passable, but not for reading
      if (level > 0) {
        // The nearest folder that stands tells when the next one is made, perhaps just now.
        const int above = numbers[level - 1];
        numbers[level - 1] = addWatch(watched.prefixes[level - 1], kFolderItself | kEntries);
        if (above >= 0 && above != numbers[level - 1] && !uses_.contains(above)) {
          ::inotify_rm_watch(instance_->get(), above);
        }
        numbers[level] = addWatch(path, events);
        if (numbers[level] >= 0) continue;
        number = errno;
      }
      return number;
    }
    return 0;
  }

  /// Makes `numbers` the watch's numbers; those that nobody uses any more are given back.
  void use(const std::shared_ptr<Watched>& watched, std::vector<int> numbers)
      THMP_REQUIRES(mutex_) {
    std::vector<int> before = std::exchange(watched->numbers, std::move(numbers));
    for (const int number : before) {
      const auto uses = uses_.find(number);
      if (uses != uses_.end()) {
        std::erase_if(uses->second, [&](const Use& each) { return each.watched == watched; });
      }
    }
    for (std::size_t level = 0; level < watched->numbers.size(); ++level) {
      const int number = watched->numbers[level];
      if (number >= 0) uses_[number].push_back(Use{watched, level});
    }
    for (const int number : before) {
      const auto uses = uses_.find(number);
      if (uses == uses_.end() || !uses->second.empty()) continue;
      ::inotify_rm_watch(instance_->get(), number);
      uses_.erase(uses);
    }
  }

  /// What is there to read, all of it, so that many changes are told once. On the reader's thread.
  void read(int instance) {
    // Held to the end, so that nothing is done after end().
    const Lock reading(reading_);
    // When memory is short, what has been read is lost; the next time all watches make up for it.
    const bool lost = std::exchange(lost_, true);
    Outcome outcome;
    {
      const Lock lock(mutex_);
      if (ended_) return;
      std::vector<std::shared_ptr<Watched>> replaced;
      if (lost) replaceAll(outcome, replaced);
      std::array<char, std::size_t{1} << 14> buffer;
      int waiting = 0;
      ::ioctl(instance, FIONREAD, &waiting);
      do {
        const ssize_t count = ::read(instance, buffer.data(), buffer.size());
        if (count <= 0) break;
        handle(std::string_view(buffer.data(), static_cast<std::size_t>(count)), outcome, replaced);
        waiting -= static_cast<int>(count);
      } while (waiting > 0);
      rearm(replaced, outcome);
    }
    carryOut(outcome);
    lost_ = false;
  }

  void replaceAll(Outcome& outcome, std::vector<std::shared_ptr<Watched>>& replaced)
      THMP_REQUIRES(mutex_) {
    outcome.reports.insert(outcome.reports.end(), watches_.begin(), watches_.end());
    replaced.insert(replaced.end(), watches_.begin(), watches_.end());
  }

  void handle(std::string_view bytes, Outcome& outcome,
              std::vector<std::shared_ptr<Watched>>& replaced) THMP_REQUIRES(mutex_) {
    while (bytes.size() >= sizeof(inotify_event)) {
      inotify_event event = {};
      bytes.copy(reinterpret_cast<char*>(&event), sizeof event);
      const std::string_view field = bytes.substr(sizeof event, event.len);
      const std::string_view name = field.substr(0, field.find('\0'));
      bytes.remove_prefix(sizeof event + event.len);
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        replaceAll(outcome, replaced);
      } else {
        handle(event, name, outcome, replaced);
      }
    }
  }

  void handle(const inotify_event& event, std::string_view name, Outcome& outcome,
              std::vector<std::shared_ptr<Watched>>& replaced) THMP_REQUIRES(mutex_) {
    const auto uses = uses_.find(event.wd);
    if (uses == uses_.end()) return;
    for (const auto& [watched, level] : uses->second) {
      const bool folder = level + 1 == watched->prefixes.size();
      if ((event.mask & kGone) != 0) {
        replaced.push_back(watched);
      } else if (folder) {
        if (watched->tellsNames && (event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
          const Lock lock(watched->namesMutex);
          watched->goneNames.emplace_back(name);
        }
        outcome.reports.push_back(watched);
      } else if (name == watched->names[level + 1]) {
        replaced.push_back(watched);
      }
    }
    if ((event.mask & IN_IGNORED) == 0) return;
    // The system has given the number back by itself.
    for (const auto& [watched, level] : uses->second) watched->numbers[level] = -1;
    uses_.erase(uses);
  }

  void rearm(std::vector<std::shared_ptr<Watched>>& replaced, Outcome& outcome)
      THMP_REQUIRES(mutex_) {
    std::sort(replaced.begin(), replaced.end());
    replaced.erase(std::unique(replaced.begin(), replaced.end()), replaced.end());
    for (const auto& watched : replaced) {
      const std::size_t reports = outcome.reports.size();
      arm(watched, outcome);
      if (outcome.reports.size() > reports) {
        outcome.lines.push_back("tallyhive: the folder " + watched->directory +
                                " was made anew and is watched again");
      }
    }
  }

  SystemLog& log_;
  const MakeInstance makeInstance_;
  const std::shared_ptr<LinuxSerialQueue> queue_;  // null: a thread reads
  Mutex reading_;                                  // taken before `mutex_`
  bool lost_ THMP_GUARDED_BY(reading_) = false;
  Mutex mutex_;
  std::thread reader_ THMP_GUARDED_BY(mutex_);
  std::shared_ptr<const Descriptor> instance_ THMP_GUARDED_BY(mutex_);
  Descriptor stop_ THMP_GUARDED_BY(mutex_);
  bool ended_ THMP_GUARDED_BY(mutex_) = false;
  std::vector<std::shared_ptr<Watched>> watches_ THMP_GUARDED_BY(mutex_);
  std::map<int, std::vector<Use>> uses_ THMP_GUARDED_BY(mutex_);
};

namespace {

int makeInstance() { return ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK); }

class InotifyWatch final : public DirectoryWatch {
 public:
  InotifyWatch(std::shared_ptr<InotifyWatches::Registry> registry, std::shared_ptr<Watched> watched)
      : registry_(std::move(registry)), watched_(std::move(watched)) {}
  ~InotifyWatch() override { InotifyWatch::cancel(); }

  void resume() override {
    if (!watched_->cancelled && !watched_->resumed.exchange(true)) registry_->add(watched_);
  }

  void cancel() override {
    if (watched_->cancelled.exchange(true)) return;
    watched_->post([registry = registry_, watched = watched_] {
      registry->remove(watched);
      watched->changed = nullptr;
      watched->gone = nullptr;
    });
  }

 private:
  const std::shared_ptr<InotifyWatches::Registry> registry_;
  const std::shared_ptr<Watched> watched_;
};

}  // namespace

InotifyWatches::InotifyWatches(SystemLog& log) : InotifyWatches(log, nullptr) {}

InotifyWatches::InotifyWatches(SystemLog& log, std::shared_ptr<LinuxSerialQueue> reader)
    : InotifyWatches(log, std::move(reader), makeInstance) {}

InotifyWatches::InotifyWatches(SystemLog& log, std::shared_ptr<LinuxSerialQueue> reader,
                               MakeInstance makeInstance)
    : registry_(std::make_shared<Registry>(log, std::move(makeInstance), std::move(reader))) {}

InotifyWatches::~InotifyWatches() { registry_->end(); }

std::unique_ptr<DirectoryWatch> InotifyWatches::makeWatch(const std::string& directory, Poster post,
                                                          std::function<void()> changed,
                                                          std::uint32_t moreEvents, Gone gone) {
  return std::make_unique<InotifyWatch>(
      registry_, std::make_shared<Watched>(directory, std::move(post), std::move(changed),
                                           moreEvents, std::move(gone)));
}

void InotifyWatches::retry() { registry_->retry(); }

}  // namespace thmp
