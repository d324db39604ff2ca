// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/FakePlatform.h"

#include "base/plist.h"

namespace thmp {

FakePlatform::FakePlatform() { files.makeFolder(files.applicationSupportDirectory()); }

Platform FakePlatform::platform() { return platform(Others{}); }

Platform FakePlatform::platform(const Others& others) {
  return Platform{.files = others.files != nullptr ? *others.files : files,
                  .execution = others.execution != nullptr ? *others.execution : execution,
                  .identity = identity,
                  .preferences = others.preferences != nullptr ? *others.preferences : preferences,
                  .application = application,
                  .pasteboards = pasteboards,
                  .spotlight = spotlight,
                  .mail = mail,
                  .log = log};
}

std::string FakePlatform::dataFolder() {
  return files.applicationSupportDirectory() + "/Mail/Tallyhive";
}

std::string FakePlatform::inbox() { return dataFolder() + "/in"; }

std::string FakePlatform::outbox() { return dataFolder() + "/out"; }

void FakePlatform::clientWrites(const std::string& name, const Value& message) {
  files.writeFile(inbox() + "/" + name, writeBinaryPropertyList(message).value_or(""));
}

std::string FakePlatform::clientSends(const std::string& messageName, const Dictionary& userInfo) {
  Dictionary message{{"name", messageName}};
  if (!userInfo.empty()) message.set("userInfo", userInfo);
  std::string name = identity.globallyUniqueString() + ".plist";
  clientWrites(name, message);
  return name;
}

std::vector<Dictionary> FakePlatform::messagesIn(const std::string& folder) const {
  std::vector<Dictionary> messages;
  for (const std::string& name : files.entries(folder)) {
    if (!name.ends_with(".plist")) continue;
    const std::string bytes =
        files.contents(std::string(folder).append("/").append(name)).value_or("");
    const auto value = readPropertyList(bytes, kMessageLimits);
    messages.push_back(value.value_or(Value()).asDictionary().value_or(Dictionary()));
  }
  return messages;
}

std::vector<Dictionary> FakePlatform::posted(const std::string& messageName) {
  std::vector<Dictionary> payloads;
  for (const Dictionary& message : messagesIn(outbox())) {
    if (message["name"] == Value(messageName)) {
      payloads.push_back(message["userInfo"].asDictionary().value_or(Dictionary()));
    }
  }
  return payloads;
}

}  // namespace thmp
