// SPDX-License-Identifier: Apache-2.0
//
// The host as an application without a screen: its main entry point gives the notices of quit and
// activation, alerts and errors go to the system log (and with it to standard error), the folder
// chooser is cancelled at once.
//
// Made on the main thread. Quit applications are watched for from the first registration on.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "platform/application.h"
#include "platform/linux/LinuxExecution.h"
#include "platform/linux/Notice.h"
#include "platform/linux/RunningApplications.h"
#include "platform/linux/XdgFolders.h"
#include "platform/log.h"

namespace thmp {

class LinuxApplication final : public Application {
 public:
  LinuxApplication(XdgFolders folders, LinuxExecution& execution, SystemLog& log);
  ~LinuxApplication() override;

  /// The folder of the plug-in's bundle, whose Contents/Info.plist is read from then on. Any
  /// thread.
  void setPluginBundle(const std::string& bundle);

  /// Gives the notice that the host quits; only the first call does. Main thread; the observers
  /// have been called when it returns.
  void postWillTerminate();
  /// Gives the notice that the host has become active, after what could not be watched so far has
  /// been tried again. Main thread; the observers have been called when it returns.
  void postDidBecomeActive();

  void observeWillTerminate(std::weak_ptr<void> observer, Callback callback) override;
  void observeDidBecomeActive(std::weak_ptr<void> observer, Callback callback) override;
  void removeDidBecomeActiveObserver(const std::weak_ptr<void>& observer) override;
  void observeApplicationTerminated(std::weak_ptr<void> observer,
                                    TerminationCallback callback) override;
  void removeApplicationTerminatedObserver(const std::weak_ptr<void>& observer) override;

  bool hasRunningApplication(const std::string& bundleIdentifier) override;

  void presentError(const Error& error) override;
  void runAlert(const Alert& alert) override;
  FolderChooserAnswer chooseFolder(const FolderChooserRequest& request) override;
  std::string localizedString(const std::string& key) override;
  Dictionary pluginInformation() override;

  /// A property list of the path and of what stands there, which tells when another folder has
  /// taken its place.
  std::optional<Data> makeBookmark(const Url& url) override;
  std::optional<ResolvedBookmark> resolveBookmark(const Data& bookmark) override;
  void startAccessing(const Url& url) override;

 private:
  void startRunningApplications();

  const XdgFolders folders_;
  const std::string applications_;
  LinuxExecution& execution_;
  SystemLog& log_;

  Notice<> willTerminate_;
  Notice<> didBecomeActive_;
  Notice<TerminatedApplication> applicationTerminated_;
  std::atomic<bool> quitting_ = false;
  std::atomic<bool> runningWanted_ = false;

  Mutex mutex_;
  std::string bundle_ THMP_GUARDED_BY(mutex_);

  // Main thread only.
  std::unique_ptr<RunningApplications> running_;
};

}  // namespace thmp
