// SPDX-License-Identifier: Apache-2.0
#include "client/Exchange.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "base/plist.h"
#include "messaging/message_names.h"
#include "platform/linux/LinuxFiles.h"

namespace thmp::client {
namespace {

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

Result<std::unique_ptr<Exchange>> Exchange::open(const XdgFolders& folders) {
  std::unique_ptr<Exchange> exchange(new Exchange(folders));
  for (const std::string* folder : {&exchange->in_, &exchange->out_}) {
    Error error;
    if (!exchange->files_->createDirectories(*folder, &error)) return error;
  }
  Result<std::unique_ptr<Wakeups>> wakeups = Wakeups::open();
  if (!wakeups) return wakeups.error();
  exchange->wakeups_ = *std::move(wakeups);
  for (const std::string* folder : {&exchange->in_, &exchange->out_}) {
    if (const Result<void> watched = exchange->wakeups_->watch(*folder); !watched) {
      return watched.error();
    }
  }
  // Looked at and left: answers to come are told from these.
  for (std::string& name :
       exchange->files_->list(exchange->out_).value_or(std::vector<std::string>())) {
    exchange->known_.insert(std::move(name));
  }
  return exchange;
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

}  // namespace thmp::client
