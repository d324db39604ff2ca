// SPDX-License-Identifier: Apache-2.0
#include "benchmarks/raw_exchange.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string_view>

#include "platform/linux/Descriptor.h"
#include "platform/linux/TemporaryFile.h"

namespace thmp::benchmarks {
namespace {

constexpr std::string_view kExtension = ".plist";
// About as long as a Connect.
constexpr std::size_t kFileBytes = 400;

// One folder as its reader has it.
class Side {
 public:
  explicit Side(const std::string& path)
      : folder_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        events_(::inotify_init1(IN_CLOEXEC)) {
    ::inotify_add_watch(events_.get(), path.c_str(), IN_CREATE | IN_MOVED_TO);
  }

  int folder() const { return folder_.get(); }

  // Waits for an entry to come, then lists the folder, reads what is there and unlinks it.
  bool receive() const {
    while (true) {
      std::array<char, 4096> buffer;
      if (::read(events_.get(), buffer.data(), buffer.size()) <= 0) return false;
      if (takeAll() > 0) return true;
    }
  }

 private:
  int takeAll() const {
    // A descriptor of its own, for fdopendir() takes it over.
    const int again = ::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* listing = ::fdopendir(again);
    if (listing == nullptr) return 0;
    int taken = 0;
    while (const dirent* entry = ::readdir(listing)) {
      if (!std::string_view(entry->d_name).ends_with(kExtension)) continue;
      const Descriptor file(::openat(folder_.get(), entry->d_name, O_RDONLY | O_CLOEXEC));
      std::array<char, kFileBytes> bytes;
      if (::read(file.get(), bytes.data(), bytes.size()) < 0) continue;
      ::unlinkat(folder_.get(), entry->d_name, 0);
      ++taken;
    }
    ::closedir(listing);
    return taken;
  }

  Descriptor folder_;
  Descriptor events_;
};

bool drop(int folder, int number) {
  const std::string name = std::to_string(number) + std::string(kExtension);
  std::optional<TemporaryFile> file = TemporaryFile::make(folder, "." + name);
  static const std::string content(kFileBytes, 'x');
  return file && file->write(content) && file->finish() && file->linkAs(folder, name);
}

}  // namespace

std::vector<double> rawRoundTrips(const std::string& folder, int rounds) {
  const std::string in = folder + "/in";
  const std::string out = folder + "/out";
  ::mkdir(in.c_str(), 0700);
  ::mkdir(out.c_str(), 0700);
  const Side inbox(in);
  const Side outbox(out);
  const pid_t other = ::fork();
  if (other < 0) return {};
  if (other == 0) {
    for (int round = 0; round < rounds; ++round) {
      if (!inbox.receive() || !drop(outbox.folder(), round)) ::_exit(1);
    }
    ::_exit(0);
  }
  std::vector<double> taken;
  for (int round = 0; round < rounds; ++round) {
    const auto begun = std::chrono::steady_clock::now();
    if (!drop(inbox.folder(), round) || !outbox.receive()) break;
    taken.push_back(
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begun)
            .count());
  }
  if (static_cast<int>(taken.size()) < rounds) {
    ::kill(other, SIGTERM);
    taken.clear();
  }
  ::waitpid(other, nullptr, 0);
  return taken;
}

}  // namespace thmp::benchmarks
