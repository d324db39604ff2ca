// SPDX-License-Identifier: Apache-2.0
#include "client/MessageFolders.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <utility>

#include "base/plist.h"
#include "messaging/message_names.h"
#include "platform/linux/LinuxFiles.h"

namespace thmp::client {

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

MessageFolders::MessageFolders(const XdgFolders& folders)
    : in_(folders.data + "/Mail/Tallyhive/" + kInboxName),
      out_(folders.data + "/Mail/Tallyhive/" + kOutboxName),
      files_(std::make_unique<LinuxFiles>(folders.data)) {}

Result<std::unique_ptr<MessageFolders>> MessageFolders::open(const XdgFolders& folders) {
  std::unique_ptr<MessageFolders> opened(new MessageFolders(folders));
  for (const std::string* folder : {&opened->in_, &opened->out_}) {
    Error error;
    if (!opened->files_->createDirectories(*folder, &error)) return error;
  }
  return opened;
}

void MessageFolders::passOverWhatIsThere() {
  for (std::string& name : files_->list(out_).value_or(std::vector<std::string>())) {
    known_.insert(std::move(name));
  }
}

Result<std::string> MessageFolders::post(std::string_view name, const Dictionary& userInfo) {
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

std::vector<Message> MessageFolders::take(const std::function<bool(const Message&)>& isOwn) {
  std::vector<Message> taken;
  std::unordered_set<std::string> listed;
  for (const std::string& file : files_->list(out_).value_or(std::vector<std::string>())) {
    if (!isMessageFileName(file) || !listed.insert(file).second || known_.contains(file)) continue;
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

bool MessageFolders::withdraw(const std::string& file) {
  return ::unlink((in_ + "/" + file).c_str()) == 0;
}

bool MessageFolders::isTaken(const std::string& file) const {
  return ::faccessat(AT_FDCWD, (in_ + "/" + file).c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
}

}  // namespace thmp::client
