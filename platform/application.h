// SPDX-License-Identifier: Apache-2.0
//
// The host application: its notices, what it shows to the user, the applications beside it, the
// plug-in's own bundle.
//
// Notices arrive on the main thread. Registrations are weak: `observer` is promoted for each call,
// and a registration whose observer is gone is dropped. Modal calls return when the user has
// answered, and at once where nobody can be asked.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/error.h"
#include "base/url.h"
#include "base/value.h"

namespace thmp {

/// What the notice of a quit application carries. Each value as the system gave it: a text, or
/// something else.
struct TerminatedApplication {
  /// Under "NSApplicationBundleIdentifier" of the notice.
  Value bundleIdentifier;
  /// Of the running-application object under "NSWorkspaceApplicationKey"; null without one.
  Value applicationBundleIdentifier;
};

struct Alert {
  std::string messageText;
  std::string informativeText;
  std::string button;
};

struct FolderChooserRequest {
  std::string title;
  std::string message;
  /// The label of the default button.
  std::string prompt;
  Url startingFolder;
  /// Asked for each entry shown; the others are shown disabled. Any number of calls, during the
  /// chooser only.
  std::function<bool(const Url& entry)> shouldEnable;
};

enum class ModalResponse { kOk, kCancel };

struct FolderChooserAnswer {
  ModalResponse response = ModalResponse::kCancel;
  Url folder;  // empty unless kOk
};

struct ResolvedBookmark {
  Url url;
  /// The bookmark still leads there but should be made anew.
  bool stale = false;
};

class Application {
 public:
  using Callback = std::function<void()>;
  using TerminationCallback = std::function<void(const TerminatedApplication&)>;

  virtual ~Application() = default;

  // Notices. Observers of one notice are called in the order of registration. Any thread may
  // register.
  virtual void observeWillTerminate(std::weak_ptr<void> observer, Callback callback) = 0;
  virtual void observeDidBecomeActive(std::weak_ptr<void> observer, Callback callback) = 0;
  /// Works from inside a callback too, and on an observer that was never registered.
  virtual void removeDidBecomeActiveObserver(const std::weak_ptr<void>& observer) = 0;
  virtual void observeApplicationTerminated(std::weak_ptr<void> observer,
                                            TerminationCallback callback) = 0;
  virtual void removeApplicationTerminatedObserver(const std::weak_ptr<void>& observer) = 0;

  /// Whether an application with this bundle identifier runs now. Any thread.
  virtual bool hasRunningApplication(const std::string& bundleIdentifier) = 0;

  /// Shows `error`, application-modal.
  virtual void presentError(const Error& error) = 0;
  /// Shows `alert` in critical style, application-modal.
  virtual void runAlert(const Alert& alert) = 0;
  virtual FolderChooserAnswer chooseFolder(const FolderChooserRequest& request) = 0;

  /// The host's translation of `key`, else `key` itself. Any thread.
  virtual std::string localizedString(const std::string& key) = 0;

  /// The information dictionary of the plug-in's own bundle; empty when it cannot be read. Any
  /// thread.
  virtual Dictionary pluginInformation() = 0;

  // Bookmarks: a folder's place as data that leads back to it in a later launch.
  /// Empty when none can be made.
  virtual std::optional<Data> makeBookmark(const Url& url) = 0;
  /// Empty when the data leads nowhere any more.
  virtual std::optional<ResolvedBookmark> resolveBookmark(const Data& bookmark) = 0;
  /// Begins the access that a resolved bookmark or a chosen folder grants; never ended.
  virtual void startAccessing(const Url& url) = 0;
};

}  // namespace thmp
