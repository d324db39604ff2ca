// SPDX-License-Identifier: Apache-2.0
#include "messaging/THMPCommunicationCenterClass.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "messaging/log_line.h"
#include "messaging/message_names.h"

namespace thmp {
namespace {

constexpr char kDataDirectoryBelowSupport[] = "Mail/Tallyhive";
/// What the names of files that are being written begin with, on systems that must name them.
constexpr std::string_view kTemporaryPrefix = ".x.tmp-";
constexpr char kQueueLabel[] = "com.quorvane.tallyhive.mailplugin";

}  // namespace

Url THMPCommunicationCenterClass::pluginDataDirectoryURL() {
  std::string support = platform_.files.applicationSupportDirectory();
  const ProcessPaths& process = paths_.processPaths();
  if (process.THMPApplicationSandboxed()) {
    // Deliberate: the container's own folder is none where the other process would look.
    const std::string& home = process.THMPUserHomeDirectory();
    if (home.empty()) return {};
    support = Url::file(home).appending(platform_.files.applicationSupportBelowHome()).path();
  }
  return support.empty() ? Url() : Url::file(support).appending(kDataDirectoryBelowSupport);
}

Url THMPCommunicationCenterClass::communicationInboxURL() {
  return messageFolder(kInboxName,
                       "THMPMailPlugin error. Failed to create plugin communication inbox: %@");
}

Url THMPCommunicationCenterClass::communicationOutboxURL() {
  return messageFolder(kOutboxName,
                       "THMPMailPlugin error. Failed to create plugin communication outbox: %@");
}

Url THMPCommunicationCenterClass::messageFolder(const char* name, LogFormat<Error> failure) {
  Url folder = pluginDataDirectoryURL();
  if (!folder.empty()) folder = folder.appending(name);
  Error error;
  if (!platform_.files.createDirectories(folder.path(), &error)) {
    writeLogLine(platform_.log, failure, error);
  }
  return folder;
}

void THMPCommunicationCenterClass::createCommunicationMessageDirectories() {
  communicationInboxURL();
  communicationOutboxURL();
}

std::shared_ptr<SerialQueue> THMPCommunicationCenterClass::messageCenterQueue() {
  std::call_once(queueOnce_, [this] { queue_ = platform_.execution.makeSerialQueue(kQueueLabel); });
  return queue_;
}

void THMPCommunicationCenterClass::clearDirectory(const Url& directory, const Filter& filter) {
  const auto names = platform_.files.list(directory.path());
  if (!names) return;
  for (const std::string& name : *names) {
    if (!isMessageFileName(name)) continue;
    if (filter && !filter(directory.appending(name))) continue;
    static_cast<void>(platform_.files.removeEntry(directory.path(), name));
  }
}

void THMPCommunicationCenterClass::removeTemporaryFiles(const Url& directory) {
  const auto names = platform_.files.list(directory.path());
  if (!names) return;
  for (const std::string& name : *names) {
    if (!name.starts_with(kTemporaryPrefix)) continue;
    static_cast<void>(platform_.files.removeEntry(directory.path(), name));
  }
}

}  // namespace thmp
