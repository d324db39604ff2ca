// SPDX-License-Identifier: Apache-2.0
//
// The host application as a test plays it: it sends the notices, scripts what the user answers, and
// records what was shown and asked.
//
// Scripts and hooks run on the calling thread with nothing locked; a modal window's nested loop is
// played by a hook that posts notices or runs the main queue. Any thread.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/application.h"

namespace thmp {

class FakeApplication : public Application {
 public:
  using ChooserScript = std::function<FolderChooserAnswer(const FolderChooserRequest& request)>;
  using BookmarkMaker = std::function<std::optional<Data>(const Url& url)>;
  using BookmarkResolver = std::function<std::optional<ResolvedBookmark>(const Data& bookmark)>;
  using UrlHook = std::function<void(const Url& url)>;
  using Hook = std::function<void()>;

  // The notices, sent on the calling thread.
  void willTerminate();
  void didBecomeActive();
  void applicationTerminated(const TerminatedApplication& application);
  /// The notice that carries `bundleIdentifier` in both places, after the application has ended.
  void endApplication(const std::string& bundleIdentifier);

  /// Registrations whose observer is alive.
  std::size_t willTerminateObservers() const;
  std::size_t didBecomeActiveObservers() const;
  std::size_t applicationTerminatedObservers() const;

  void setRunning(const std::string& bundleIdentifier, bool running);

  // What was shown. The hooks run while the window is open.
  std::vector<Error> presentedErrors() const;
  std::vector<Alert> alerts() const;
  void duringError(Hook hook);
  void duringAlert(Hook hook);

  // The chooser: each opening takes the next script; without one the user cancels.
  void answerChooser(ChooserScript script);
  void answerChooserWithFolder(const std::string& path);
  void cancelChooser();
  /// The requests so far, without their shouldEnable, which ends with the chooser.
  std::vector<FolderChooserRequest> chooserRequests() const;

  void translate(const std::string& key, const std::string& text);
  /// The keys asked for, in order.
  std::vector<std::string> localizedKeys() const;
  void setPluginInformation(const Dictionary& information);

  // Bookmarks. By default one of any URL can be made, and leads back to it.
  void setBookmarkMaker(BookmarkMaker maker);
  void setBookmarkResolver(BookmarkResolver resolver);
  /// The bookmark that the default maker makes.
  static Data bookmarkOf(const Url& url);
  std::vector<Url> bookmarksMade() const;
  std::vector<Data> bookmarksResolved() const;
  std::vector<Url> accessesStarted() const;
  /// For instance to make the folder writable.
  void onStartAccessing(UrlHook hook);

  // Application.
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
  std::optional<Data> makeBookmark(const Url& url) override;
  std::optional<ResolvedBookmark> resolveBookmark(const Data& bookmark) override;
  void startAccessing(const Url& url) override;

 private:
  enum class Notice { kWillTerminate, kDidBecomeActive, kApplicationTerminated };
  struct Registration {
    int number;
    Notice notice;
    std::weak_ptr<void> observer;
    TerminationCallback callback;
  };

  void observe(Notice notice, std::weak_ptr<void> observer, TerminationCallback callback);
  void removeObserver(Notice notice, const std::weak_ptr<void>& observer);
  std::size_t observers(Notice notice) const;
  void send(Notice notice, const TerminatedApplication& application);

  mutable Mutex mutex_;
  std::vector<Registration> registrations_ THMP_GUARDED_BY(mutex_);
  int registered_ THMP_GUARDED_BY(mutex_) = 0;
  std::set<std::string> running_ THMP_GUARDED_BY(mutex_);
  std::vector<Error> errors_ THMP_GUARDED_BY(mutex_);
  std::vector<Alert> alerts_ THMP_GUARDED_BY(mutex_);
  Hook duringError_ THMP_GUARDED_BY(mutex_);
  Hook duringAlert_ THMP_GUARDED_BY(mutex_);
  std::deque<ChooserScript> chooserScripts_ THMP_GUARDED_BY(mutex_);
  std::vector<FolderChooserRequest> chooserRequests_ THMP_GUARDED_BY(mutex_);
  std::map<std::string, std::string> translations_ THMP_GUARDED_BY(mutex_);
  std::vector<std::string> localizedKeys_ THMP_GUARDED_BY(mutex_);
  Dictionary information_ THMP_GUARDED_BY(mutex_);
  BookmarkMaker maker_ THMP_GUARDED_BY(mutex_);
  BookmarkResolver resolver_ THMP_GUARDED_BY(mutex_);
  std::vector<Url> bookmarksMade_ THMP_GUARDED_BY(mutex_);
  std::vector<Data> bookmarksResolved_ THMP_GUARDED_BY(mutex_);
  std::vector<Url> accesses_ THMP_GUARDED_BY(mutex_);
  UrlHook onStartAccessing_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
