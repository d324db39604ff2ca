// SPDX-License-Identifier: Apache-2.0
//
// All that exists once in a process: made by the entry point and never destroyed, because queue and
// engine threads outlive what is destroyed at exit; a test makes one for each case. Nothing else in
// the plug-in is static. Any thread.
#pragma once

#include <atomic>
#include <memory>

#include "base/mutex.h"
#include "maillibrary/MailLibraryLookup.h"
#include "messaging/DataDirectoryAccess.h"
#include "messaging/THMPCommunicationCenterClass.h"
#include "paths/FullDiskAccess.h"
#include "paths/THMPPathAdditions.h"
#include "platform/platform.h"
#include "plugin/PluginLog.h"
#include "search/QueryConstruction.h"

namespace thmp {

class THMPMailPlugin;

/// How far the plug-in has come.
enum class PluginStage {
  kNotLoaded,
  kLoaded,
  kInitializing,
  kInert,       // the host has no bundles, or the data folder cannot be made; stays so
  kRegistered,  // the instance is pending on the main queue
  kRunning,
  kQuitting,
};

class ProcessState {
 public:
  explicit ProcessState(Platform& hostPlatform);
  ~ProcessState();
  ProcessState(const ProcessState&) = delete;
  ProcessState& operator=(const ProcessState&) = delete;

  PluginStage stage() const;
  /// Moves on to `next`; false, and no change, when it is not ahead, or when the plug-in is inert.
  bool moveTo(PluginStage next);

  /// Null until createInstance.
  std::shared_ptr<THMPMailPlugin> instance() const;
  /// Returns the instance that stood there before, for the caller to drop.
  std::shared_ptr<THMPMailPlugin> exchangeInstance(std::shared_ptr<THMPMailPlugin> next);

  Platform& platform;
  PluginLog log;
  THMPPathAdditions paths;
  FullDiskAccess fullDiskAccess;
  THMPCommunicationCenterClass centerClass;
  DataDirectoryAccess dataDirectoryAccess;
  AttributeList attributeList;
  MailLibraryLookup mailLibrary;

  /// Set by the first Connect that asks for the version check.
  std::atomic<bool> versionChecked = false;

 private:
  mutable Mutex mutex_;
  PluginStage stage_ THMP_GUARDED_BY(mutex_) = PluginStage::kNotLoaded;
  std::shared_ptr<THMPMailPlugin> instance_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
