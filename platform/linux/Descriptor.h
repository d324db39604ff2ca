// SPDX-License-Identifier: Apache-2.0
//
// An open descriptor and its owner: closed once, by destruction or reset().
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace thmp {

class Descriptor {
 public:
  Descriptor() noexcept = default;
  /// Takes `fd` over; a negative one is "none".
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  /// Gives the descriptor away, open.
  int release() noexcept { return std::exchange(fd_, -1); }

  /// Closes it and keeps errno. False when the system reports a failure at close.
  bool reset() noexcept {
    if (fd_ < 0) return true;
    const int saved = errno;
    // Never repeated after EINTR: on Linux the descriptor is gone by then.
    const bool closed = ::close(std::exchange(fd_, -1)) == 0 || errno == EINTR;
    if (closed) errno = saved;
    return closed;
  }

 private:
  int fd_ = -1;
};

}  // namespace thmp
