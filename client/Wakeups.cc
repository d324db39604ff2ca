// SPDX-License-Identifier: Apache-2.0
#include "client/Wakeups.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/linux/posix_io.h"

namespace thmp::client {

Result<std::unique_ptr<Wakeups>> Wakeups::open() {
  std::unique_ptr<Wakeups> wakeups(new Wakeups);
  sigset_t ending;
  sigemptyset(&ending);
  for (const int number : {SIGINT, SIGTERM, SIGIO}) sigaddset(&ending, number);
  if (!isIgnored(SIGHUP)) sigaddset(&ending, SIGHUP);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  wakeups->signals_ = Descriptor(::signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!wakeups->signals_) return Error::posix(errno, "cannot wait for signals");
  return wakeups;
}

Result<void> Wakeups::watch(const std::string& folder) {
  if (!events_) {
    Result<FolderEvents> events = FolderEvents::open();
    if (!events) return events.error();
    events_ = *std::move(events);
  }
  return events_->watch(folder);
}

// Directory notification is older than inotify and says less, by SIGIO, but its end waits for
// nothing.
Result<void> Wakeups::watchEntries(const std::string& folder, Entries which) {
  Descriptor open = openAt(AT_FDCWD, folder, O_RDONLY | O_DIRECTORY);
  if (!open) return Error::posix(errno, "cannot watch " + folder);
  const unsigned kinds = DN_MULTISHOT | (which == Entries::kCome ? DN_CREATE : DN_DELETE);
  // A system can be without it.
  if (::fcntl(open.get(), F_NOTIFY, kinds) != 0) return watch(folder);
  folders_.push_back(std::move(open));
  return {};
}

Wake Wakeups::wait(std::optional<std::chrono::steady_clock::time_point> deadline) {
  while (true) {
    int milliseconds = -1;
    if (deadline) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(
          *deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return Wake::kTimeout;
      milliseconds = static_cast<int>(std::min<std::int64_t>(left.count(), 1'000'000));
    }
    std::array<pollfd, 3> waiting = {pollfd{signals_.get(), POLLIN, 0},
                                     pollfd{watchesOutput_ ? STDOUT_FILENO : -1, 0, 0},
                                     pollfd{events_ ? events_->descriptor() : -1, POLLIN, 0}};
    if (::poll(waiting.data(), waiting.size(), milliseconds) < 0) continue;  // EINTR
    if (waiting[0].revents != 0) {
      signalfd_siginfo info{};
      if (::read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        // The lowest number comes first, so what ends us before this.
        if (info.ssi_signo == SIGIO) return Wake::kFolder;
        signal_ = static_cast<int>(info.ssi_signo);
        return Wake::kSignal;
      }
    }
    if ((waiting[1].revents & (POLLERR | POLLNVAL)) != 0) return Wake::kOutputClosed;
    if (waiting[2].revents != 0) {
      events_->drain();
      return Wake::kFolder;
    }
  }
}

}  // namespace thmp::client
