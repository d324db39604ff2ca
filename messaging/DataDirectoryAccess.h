// SPDX-License-Identifier: Apache-2.0
//
// How the process came by its right to write the data folder: one object for the process, made by
// the entry point and handed to each center. Any thread.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "base/mutex.h"
#include "base/url.h"
#include "messaging/THMPOpenPanelDelegate.h"

namespace thmp {

class DataDirectoryAccess {
 public:
  /// Empty until access has been obtained.
  Url securedDataDirectoryURL() const {
    const Lock lock(mutex_);
    return securedDataDirectoryURL_;
  }
  void setSecuredDataDirectoryURL(Url url) {
    const Lock lock(mutex_);
    securedDataDirectoryURL_ = std::move(url);
  }

  /// True once in the process: whoever gets it asks the user. An exchange rather than a once-guard,
  /// since the question may come up again while the chooser is open on the same thread.
  bool takeTurnToAsk() { return !asked_.exchange(true); }

  /// The one delegate of the process, made at the first call.
  std::shared_ptr<THMPOpenPanelDelegate> sharedPanelDelegate() {
    const Lock lock(mutex_);
    if (!sharedPanelDelegate_) sharedPanelDelegate_ = std::make_shared<THMPOpenPanelDelegate>();
    return sharedPanelDelegate_;
  }

 private:
  std::atomic<bool> asked_ = false;
  mutable Mutex mutex_;
  Url securedDataDirectoryURL_ THMP_GUARDED_BY(mutex_);
  std::shared_ptr<THMPOpenPanelDelegate> sharedPanelDelegate_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
