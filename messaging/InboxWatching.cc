// SPDX-License-Identifier: Apache-2.0
//
// The receiving side of THMPCommunicationCenter.
//
// Scans take no lock and may overlap. What they share is safe without one: the known set is an
// immutable snapshot of which the last writer's stays, and a file is handled only by the scan that
// has claimed it.
#include <cstdint>
#include <utility>

#include "base/plist.h"
#include "messaging/MessageClaims.h"
#include "messaging/THMPCommunicationCenter.h"
#include "messaging/log_line.h"
#include "messaging/message_names.h"

namespace thmp {

void THMPCommunicationCenter::startObserving(const Url& directory) {
  Platform& platform = class_.platform();
  const std::string& path = directory.path();
  if (!platform.files.exists(path) || !platform.files.isDirectory(path)) {
    writeLogLine(platform.log, "THMPMailPlugin error. Communication directory (%@) does not exist",
                 path);
    return;
  }
  std::shared_ptr<DirectoryWatch> source;
  {
    // Deliberate: one watch for each center, the first folder wins.
    const Lock lock(watcherMutex_);
    if (watcherSource_) return;
  }
  source = platform.execution.makeDirectoryWatch(path, class_.messageCenterQueue(),
                                                 [weakCenter = weak_from_this(), directory] {
                                                   if (const auto center = weakCenter.lock())
                                                     center->directoryChanged(directory);
                                                 });
  {
    const Lock lock(watcherMutex_);
    if (watcherSource_) return;  // another thread was quicker
    watcherSource_ = source;
  }
  // Watched first, listed then: a file that arrives between the two is seen by one of them.
  source->resume();
  directoryChanged(directory);
}

void THMPCommunicationCenter::stopObservingDirectory() {
  std::shared_ptr<DirectoryWatch> source;
  {
    const Lock lock(watcherMutex_);
    source.swap(watcherSource_);
  }
  if (source) source->cancel();
}

void THMPCommunicationCenter::directoryChanged(const Url& directory) {
  // An observer may let go of the center's last other reference.
  const std::shared_ptr<THMPCommunicationCenter> self = shared_from_this();
  // In flight first: what a scan that ends now has taken is then either known or still claimed.
  MessageClaims::Scan scan(class_.messageClaims(), directory.path());
  const std::shared_ptr<const KnownMessageFiles> known = knownMessageFiles_.get();
  auto* const receiver = dynamic_cast<protocol::THMPCommunicationCenter*>(this);
  auto listed = std::make_shared<KnownMessageFiles>();
  const auto names = class_.platform().files.list(directory.path());
  if (names) {
    listed->reserve(names->size());
    for (const std::string& name : *names) {
      const std::string& path = *listed->insert(directory.appending(name).path()).first;
      if (known && known->contains(path)) continue;
      // A name that the listing repeats is claimed by its first mention.
      if (!isMessageFileName(name) || !scan.claim(name)) continue;
      handleMessageFile(directory, name, receiver);
    }
  }
  // What other scans have taken meanwhile stays known too, whoever writes last.
  scan.withClaims([&](const auto& claimed) {
    for (const std::string& name : claimed) listed->insert(directory.appending(name).path());
    knownMessageFiles_.set(std::move(listed));
  });
}

void THMPCommunicationCenter::handleMessageFile(const Url& directory, const std::string& name,
                                                protocol::THMPCommunicationCenter* receiver) {
  Platform& platform = class_.platform();
  Error error;
  const std::optional<Value> message = readMessageFile(directory.appending(name).path(), &error);
  if (!message) {
    writeLogLine(platform.log, "THMPMailPlugin. Failed to read message file: %@", error);
    return;
  }
  if (receiver == nullptr || !receiver->shouldAcceptMessage(*message)) return;
  dispatchMessage(*message);
  // A file that cannot be deleted stays known, and so is not dispatched again.
  static_cast<void>(platform.files.removeEntry(directory.path(), name));
}

std::optional<Value> THMPCommunicationCenter::readMessageFile(const std::string& path,
                                                              Error* error) {
  const auto bytes = class_.platform().files.readFile(path, kMessageLimits.maxBytes, error);
  if (!bytes) return std::nullopt;
  std::optional<Value> root = readPropertyList(*bytes, kMessageLimits, error);
  if (root && root->kind() != Value::Kind::kDictionary) {
    fail(error, Error{std::string(kPropertyListErrorDomain),
                      static_cast<std::int64_t>(PropertyListError::kUnsupported),
                      "The root of " + path + " is no dictionary", nullptr});
    root.reset();
  }
  return root;
}

}  // namespace thmp
