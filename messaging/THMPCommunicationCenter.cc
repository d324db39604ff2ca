// SPDX-License-Identifier: Apache-2.0
#include "messaging/THMPCommunicationCenter.h"

#include <cstdint>
#include <string_view>
#include <system_error>
#include <utility>

#include "messaging/log_line.h"
#include "messaging/message_names.h"

namespace thmp {
namespace {

/// How often a name is drawn when the one before is in use.
constexpr int kMaxNameAttempts = 3;

bool isNameInUse(const Error& error) {
  return error.domain == kPosixErrorDomain &&
         error.code == static_cast<std::int64_t>(std::errc::file_exists);
}

std::string messageFileName(Identity& identity, const std::optional<std::string>& prefix) {
  std::string name = prefix ? *prefix + "-" : std::string();
  name += identity.globallyUniqueString();
  name += '.';
  name += kMessageFileExtension;
  return name;
}

}  // namespace

std::shared_ptr<THMPCommunicationCenter> THMPCommunicationCenter::create(
    THMPCommunicationCenterClass& centerClass) {
  std::shared_ptr<THMPCommunicationCenter> center(new THMPCommunicationCenter(centerClass));
  center->init();
  return center;
}

void THMPCommunicationCenter::init() {
  communicationInboxURL_ = class_.communicationInboxURL();
  communicationOutboxURL_ = class_.communicationOutboxURL();
}

THMPCommunicationCenter::~THMPCommunicationCenter() { stopObservingDirectory(); }

void THMPCommunicationCenter::addObserver(const std::weak_ptr<void>& observer,
                                          MessageSelector selector,
                                          const std::string& messageName) {
  observersByMessageName_.add(observer, std::move(selector), messageName);
}

void THMPCommunicationCenter::removeObserver(const std::weak_ptr<void>& observer,
                                             const std::string& messageName) {
  observersByMessageName_.remove(observer, messageName);
}

void THMPCommunicationCenter::removeObserver(const std::weak_ptr<void>& observer) {
  observersByMessageName_.remove(observer);
}

bool THMPCommunicationCenter::postMessageName(const std::string& name, const Value& userInfo,
                                              const Url& directory,
                                              const std::optional<std::string>& prefix,
                                              Error* error, const PublishGuard& guard) {
  Dictionary message;
  message.set(kNameKey, name);
  message.set(kUserInfoKey, userInfo);
  Error failure;
  bool written = false;
  if (const auto bytes = writeBinaryPropertyList(message, &failure)) {
    for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
      failure = Error();
      const std::string fileName = messageFileName(class_.platform().identity, prefix);
      written = writeMessageFile(*bytes, directory, fileName, guard, &failure);
      if (written || !isNameInUse(failure)) break;
    }
  }
  if (!written) {
    writeLogLine(class_.platform().log,
                 "THMPMailPlugin error. Failed to write message to file. Error: %@", failure);
  }
  if (error != nullptr) *error = written ? Error() : failure;
  return written;
}

bool THMPCommunicationCenter::writeMessageFile(const std::string& bytes, const Url& directory,
                                               const std::string& fileName,
                                               const PublishGuard& guard, Error* error) {
  const std::unique_ptr<PreparedFile> file =
      class_.platform().files.prepareFile(directory.path(), fileName, bytes, error);
  if (!file) return false;
  if (!guard) return file->publish(error);
  bool declined = true;
  bool published = false;
  guard([&] {
    declined = false;
    return published = file->publish(error);
  });
  return declined || published;
}

void THMPCommunicationCenter::dispatchMessage(const Value& message) {
  const std::optional<std::string_view> name = message[kNameKey].asText();
  if (!name) return;
  const std::shared_ptr<const ObserverRegistry::Table> table = observersByMessageName_.table(*name);
  if (!table) return;
  const std::shared_ptr<THMPCommunicationCenter> self = shared_from_this();
  // Deliberately without a lock: tables never change once published. What an observer that has run
  // has changed counts for those that have not: removed ones are left out, and each gets the
  // selector that it has now.
  for (const auto& [observer, firstSelector] : *table) {
    const auto current = observersByMessageName_.table(*name);
    const auto entry = current->find(observer);
    if (entry != current->end()) callObserver(entry->first, entry->second, message);
  }
}

void THMPCommunicationCenter::callObserver(const std::weak_ptr<void>& observer,
                                           const MessageSelector& selector,
                                           const Value& message) noexcept {
  const std::shared_ptr<void> living = observer.lock();
  if (!living) return;
  try {
    selector(living.get(), message);
  } catch (...) {
    class_.platform().log.write("tallyhive: a message handler ended in an exception");
  }
}

}  // namespace thmp
