// SPDX-License-Identifier: Apache-2.0
#include "client/Exchange.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "base/plist.h"
#include "messaging/message_names.h"
#include "platform/linux/LinuxFiles.h"

namespace thmp::client {
namespace {

constexpr std::uint32_t kFolderEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM |
                                        IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

bool isMessageFile(std::string_view name) {
  constexpr std::string_view kExtension = ".plist";
  return name.size() > kExtension.size() &&
         name.substr(name.size() - kExtension.size()) == kExtension;
}

}  // namespace

std::string freshName(std::string_view prefix) {
  std::array<unsigned char, 16> random{};
  // Of so few bytes the call never gives a part, and once the system is up it never waits.
  while (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string name(prefix);
  for (const unsigned char byte : random) {
    name += kDigits[byte >> 4];
    name += kDigits[byte & 15];
  }
  return name;
}

Exchange::Exchange(const XdgFolders& folders)
    : in_(folders.data + "/Mail/Tallyhive/in"),
      out_(folders.data + "/Mail/Tallyhive/out"),
      files_(std::make_unique<LinuxFiles>(folders.data)) {}

Exchange::~Exchange() {
  if (events_ >= 0) ::close(events_);
  if (signals_ >= 0) ::close(signals_);
}

Result<std::unique_ptr<Exchange>> Exchange::open(const XdgFolders& folders) {
  std::unique_ptr<Exchange> exchange(new Exchange(folders));
  for (const std::string* folder : {&exchange->in_, &exchange->out_}) {
    Error error;
    if (!exchange->files_->createDirectories(*folder, &error)) return error;
  }
  if (Result<void> watched = exchange->watch(); !watched) return watched.error();
  // Looked at and left: answers to come are told from these.
  for (std::string& name :
       exchange->files_->list(exchange->out_).value_or(std::vector<std::string>())) {
    exchange->known_.insert(std::move(name));
  }
  return exchange;
}

Result<void> Exchange::watch() {
  events_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (events_ < 0) return Error::posix(errno, "cannot watch folders");
  for (const std::string* folder : {&in_, &out_}) {
    if (::inotify_add_watch(events_, folder->c_str(), kFolderEvents) < 0) {
      return Error::posix(errno, "cannot watch " + *folder);
    }
  }
  sigset_t ending;
  sigemptyset(&ending);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&ending, number);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  signals_ = ::signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signals_ < 0) return Error::posix(errno, "cannot wait for signals");
  ::signal(SIGPIPE, SIG_IGN);
  return {};
}

Result<std::string> Exchange::post(std::string_view name, const Dictionary& userInfo) {
  Dictionary message;
  message.set(kNameKey, Value(name));
  message.set(kUserInfoKey, userInfo);
  Error error;
  const std::optional<std::string> bytes = writeBinaryPropertyList(Value(message), &error);
  if (!bytes) return error;
  std::string file = freshName("") + ".plist";
  const std::unique_ptr<PreparedFile> prepared = files_->prepareFile(in_, file, *bytes, &error);
  if (!prepared || !prepared->publish(&error)) return error;
  return file;
}

std::vector<Message> Exchange::take(const std::function<bool(const Message&)>& isOwn) {
  std::vector<Message> taken;
  std::unordered_set<std::string> listed;
  for (const std::string& file : files_->list(out_).value_or(std::vector<std::string>())) {
    if (!isMessageFile(file) || !listed.insert(file).second || known_.contains(file)) continue;
    const auto bytes = files_->readFile(out_ + "/" + file, kMessageLimits.maxBytes);
    const auto root = bytes ? readPropertyList(*bytes, kMessageLimits) : std::nullopt;
    if (!root) continue;
    Message message{std::string((*root)[kNameKey].asText().value_or("")),
                    (*root)[kUserInfoKey].asDictionary().value_or(Dictionary())};
    if (!isOwn(message)) continue;
    if (files_->removeEntry(out_, file)) listed.erase(file);
    taken.push_back(std::move(message));
  }
  known_ = std::move(listed);
  return taken;
}

bool Exchange::isTaken(const std::string& file) const {
  return ::faccessat(AT_FDCWD, (in_ + "/" + file).c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
}

Exchange::Wake Exchange::wait(std::optional<std::chrono::steady_clock::time_point> deadline) {
  while (true) {
    int milliseconds = -1;
    if (deadline) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(
          *deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return Wake::kTimeout;
      milliseconds = static_cast<int>(std::min<std::int64_t>(left.count(), 1'000'000));
    }
    std::array<pollfd, 3> waiting = {pollfd{signals_, POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0},
                                     pollfd{events_, POLLIN, 0}};
    if (::poll(waiting.data(), waiting.size(), milliseconds) < 0) continue;  // EINTR
    if (waiting[0].revents != 0) {
      signalfd_siginfo info{};
      if (::read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        signal_ = static_cast<int>(info.ssi_signo);
        return Wake::kSignal;
      }
    }
    if ((waiting[1].revents & (POLLERR | POLLNVAL)) != 0) return Wake::kOutputClosed;
    if (waiting[2].revents != 0) {
      drainEvents();
      return Wake::kFolder;
    }
  }
}

// What happened does not matter: both folders are looked at again.
void Exchange::drainEvents() {
  alignas(inotify_event) std::array<char, 16384> buffer;
  while (::read(events_, buffer.data(), buffer.size()) > 0) {
  }
}

}  // namespace thmp::client
