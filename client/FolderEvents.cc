// SPDX-License-Identifier: Apache-2.0
#include "client/FolderEvents.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

namespace thmp::client {
namespace {

constexpr std::uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM |
                                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

}  // namespace

Result<FolderEvents> FolderEvents::open() {
  Descriptor events(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!events) return Error::posix(errno, "cannot watch folders");
  return FolderEvents(std::move(events));
}

Result<void> FolderEvents::watch(const std::string& folder) {
  if (::inotify_add_watch(events_.get(), folder.c_str(), kEvents) < 0) {
    return Error::posix(errno, "cannot watch " + folder);
  }
  return {};
}

void FolderEvents::drain() {
  alignas(inotify_event) std::array<char, 16384> buffer;
  while (::read(events_.get(), buffer.data(), buffer.size()) > 0) {
  }
}

}  // namespace thmp::client
