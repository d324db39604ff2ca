// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxLog.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>

#include "platform/linux/Descriptor.h"
#include "platform/linux/testing.h"

namespace thmp {
namespace {

using testing::TemporaryFolder;

class LinuxLogTest : public ::testing::Test {
 protected:
  LinuxLogTest() {
    EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC | O_NONBLOCK), 0);
    places_ = {folder_.at("journal"), folder_.at("stdout"), folder_.at("log"), ends_[1]};
  }
  ~LinuxLogTest() override {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

  /// One read is what one write has put there, or several.
  std::string read() {
    std::array<char, 4096> buffer = {};
    const ssize_t count = ::read(ends_[0], buffer.data(), buffer.size());
    return std::string(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
  }

  const TemporaryFolder folder_;
  std::array<int, 2> ends_ = {-1, -1};
  LinuxLog::Places places_;
};

TEST_F(LinuxLogTest, LineStandsOnStandardErrorOnce) {
  LinuxLog log("program", places_);
  log.write("first %s %n");
  log.write("second\nline");
  EXPECT_EQ(read(), "first %s %n\nsecond\\nline\n");
}

TEST_F(LinuxLogTest, JournalAsStandardErrorGetsNoSecondCopy) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(places_.journalStream.size(), sizeof address.sun_path);
  places_.journalStream.copy(address.sun_path, sizeof address.sun_path - 1);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(listener.get(), generic, sizeof address), 0);
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  const Descriptor stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::connect(stream.get(), generic, sizeof address), 0);
  const Descriptor accepted(::accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK));

  places_.standardError = stream.get();
  LinuxLog("program", places_).write("line");
  std::array<char, 16> buffer = {};
  EXPECT_EQ(::read(accepted.get(), buffer.data(), buffer.size()), -1);
  EXPECT_EQ(errno, EAGAIN);

  // Any other socket is no journal.
  places_.journalStream = folder_.at("another");
  LinuxLog("program", places_).write("line");
  EXPECT_EQ(::read(accepted.get(), buffer.data(), buffer.size()), 5);
}

TEST_F(LinuxLogTest, ClosedStandardErrorIsNoFailure) {
  places_.standardError = -1;
  LinuxLog log("program", places_);
  log.write("line");
  EXPECT_EQ(read(), "");
}

}  // namespace
}  // namespace thmp
