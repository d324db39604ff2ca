// SPDX-License-Identifier: Apache-2.0
#include "client/Wakeups.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/linux/posix_io.h"

namespace thmp::client {

Result<std::unique_ptr<Wakeups>> Wakeups::open() {
  Result<FolderEvents> events = FolderEvents::open();
  if (!events) return events.error();
  std::unique_ptr<Wakeups> wakeups(new Wakeups(*std::move(events)));
  sigset_t ending;
  sigemptyset(&ending);
  for (const int number : {SIGINT, SIGTERM}) sigaddset(&ending, number);
  if (!isIgnored(SIGHUP)) sigaddset(&ending, SIGHUP);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  wakeups->signals_ = Descriptor(::signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!wakeups->signals_) return Error::posix(errno, "cannot wait for signals");
  return wakeups;
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
                                     pollfd{events_.descriptor(), POLLIN, 0}};
    if (::poll(waiting.data(), waiting.size(), milliseconds) < 0) continue;  // EINTR
    if (waiting[0].revents != 0) {
      signalfd_siginfo info{};
      if (::read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        signal_ = static_cast<int>(info.ssi_signo);
        return Wake::kSignal;
      }
    }
    if ((waiting[1].revents & (POLLERR | POLLNVAL)) != 0) return Wake::kOutputClosed;
    if (waiting[2].revents != 0) {
      events_.drain();
      return Wake::kFolder;
    }
  }
}

}  // namespace thmp::client
