// SPDX-License-Identifier: Apache-2.0
//
// What a center must adopt to receive anything. The class of the same name does not; a class that
// derives from both does.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/value.h"
#include "messaging/ObserverRegistry.h"

namespace thmp {

/// Asked when a message is whole on disk but not yet seen by anybody. Either calls `publish` once,
/// under whatever lock it wants the message to appear under, and returns its result; or declines by
/// returning false without calling it. An empty guard publishes at once.
using PublishGuard = std::function<bool(const std::function<bool()>& publish)>;

namespace protocol {

class THMPCommunicationCenter {
 public:
  virtual ~THMPCommunicationCenter() = default;

  /// addObserver:selector:messageName:
  ///
  /// `observer` is held weakly. One selector for each observer and name: a later one takes the
  /// place of the earlier. Any thread.
  virtual void addObserver(const std::weak_ptr<void>& observer, MessageSelector selector,
                           const std::string& messageName) = 0;
  /// removeObserver:messageName:
  ///
  /// Any thread, also from the observer's destructor.
  virtual void removeObserver(const std::weak_ptr<void>& observer,
                              const std::string& messageName) = 0;
  /// removeObserver:
  virtual void removeObserver(const std::weak_ptr<void>& observer) = 0;

  /// postMessageName:userInfo:
  ///
  /// Failures are logged, nothing is retried. Any thread.
  virtual void postMessageName(const std::string& name, const Value& userInfo,
                               const PublishGuard& guard = {}) = 0;

  /// shouldAcceptMessage:
  ///
  /// `message` is the whole dictionary. False leaves its file where it is.
  virtual bool shouldAcceptMessage(const Value& message) = 0;
};

}  // namespace protocol
}  // namespace thmp
