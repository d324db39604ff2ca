// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/FakeApplication.h"

#include <algorithm>
#include <utility>

namespace thmp {
namespace {

constexpr std::string_view kBookmarkPrefix = "bookmark:";

bool sameObserver(const std::weak_ptr<void>& a, const std::weak_ptr<void>& b) {
  return !a.owner_before(b) && !b.owner_before(a);
}

}  // namespace

void FakeApplication::willTerminate() { send(Notice::kWillTerminate, {}); }

void FakeApplication::didBecomeActive() { send(Notice::kDidBecomeActive, {}); }

void FakeApplication::applicationTerminated(const TerminatedApplication& application) {
  send(Notice::kApplicationTerminated, application);
}

void FakeApplication::endApplication(const std::string& bundleIdentifier) {
  setRunning(bundleIdentifier, false);
  applicationTerminated({bundleIdentifier, bundleIdentifier});
}

std::size_t FakeApplication::willTerminateObservers() const {
  return observers(Notice::kWillTerminate);
}

std::size_t FakeApplication::didBecomeActiveObservers() const {
  return observers(Notice::kDidBecomeActive);
}

std::size_t FakeApplication::applicationTerminatedObservers() const {
  return observers(Notice::kApplicationTerminated);
}

void FakeApplication::setRunning(const std::string& bundleIdentifier, bool running) {
  const Lock lock(mutex_);
  if (running) {
    running_.insert(bundleIdentifier);
  } else {
    running_.erase(bundleIdentifier);
  }
}

std::vector<Error> FakeApplication::presentedErrors() const {
  const Lock lock(mutex_);
  return errors_;
}

std::vector<Alert> FakeApplication::alerts() const {
  const Lock lock(mutex_);
  return alerts_;
}

void FakeApplication::duringError(Hook hook) {
  const Lock lock(mutex_);
  duringError_ = std::move(hook);
}

void FakeApplication::duringAlert(Hook hook) {
  const Lock lock(mutex_);
  duringAlert_ = std::move(hook);
}

void FakeApplication::answerChooser(ChooserScript script) {
  const Lock lock(mutex_);
  chooserScripts_.push_back(std::move(script));
}

void FakeApplication::answerChooserWithFolder(const std::string& path) {
  answerChooser([path](const FolderChooserRequest&) {
    return FolderChooserAnswer{ModalResponse::kOk, Url::file(path)};
  });
}

void FakeApplication::cancelChooser() {
  answerChooser([](const FolderChooserRequest&) { return FolderChooserAnswer{}; });
}

std::vector<FolderChooserRequest> FakeApplication::chooserRequests() const {
  const Lock lock(mutex_);
  return chooserRequests_;
}

void FakeApplication::translate(const std::string& key, const std::string& text) {
  const Lock lock(mutex_);
  translations_[key] = text;
}

std::vector<std::string> FakeApplication::localizedKeys() const {
  const Lock lock(mutex_);
  return localizedKeys_;
}

void FakeApplication::setPluginInformation(const Dictionary& information) {
  const Lock lock(mutex_);
  information_ = information;
}

void FakeApplication::setBookmarkMaker(BookmarkMaker maker) {
  const Lock lock(mutex_);
  maker_ = std::move(maker);
}

void FakeApplication::setBookmarkResolver(BookmarkResolver resolver) {
  const Lock lock(mutex_);
  resolver_ = std::move(resolver);
}

Data FakeApplication::bookmarkOf(const Url& url) {
  return Data{std::string(kBookmarkPrefix) + url.path()};
}

std::vector<Url> FakeApplication::bookmarksMade() const {
  const Lock lock(mutex_);
  return bookmarksMade_;
}

std::vector<Data> FakeApplication::bookmarksResolved() const {
  const Lock lock(mutex_);
  return bookmarksResolved_;
}

std::vector<Url> FakeApplication::accessesStarted() const {
  const Lock lock(mutex_);
  return accesses_;
}

void FakeApplication::onStartAccessing(UrlHook hook) {
  const Lock lock(mutex_);
  onStartAccessing_ = std::move(hook);
}

void FakeApplication::observeWillTerminate(std::weak_ptr<void> observer, Callback callback) {
  observe(Notice::kWillTerminate, std::move(observer),
          [callback = std::move(callback)](const TerminatedApplication&) { callback(); });
}

void FakeApplication::observeDidBecomeActive(std::weak_ptr<void> observer, Callback callback) {
  observe(Notice::kDidBecomeActive, std::move(observer),
          [callback = std::move(callback)](const TerminatedApplication&) { callback(); });
}

void FakeApplication::removeDidBecomeActiveObserver(const std::weak_ptr<void>& observer) {
  removeObserver(Notice::kDidBecomeActive, observer);
}

void FakeApplication::observeApplicationTerminated(std::weak_ptr<void> observer,
                                                   TerminationCallback callback) {
  observe(Notice::kApplicationTerminated, std::move(observer), std::move(callback));
}

void FakeApplication::removeApplicationTerminatedObserver(const std::weak_ptr<void>& observer) {
  removeObserver(Notice::kApplicationTerminated, observer);
}

bool FakeApplication::hasRunningApplication(const std::string& bundleIdentifier) {
  const Lock lock(mutex_);
  return running_.contains(bundleIdentifier);
}

void FakeApplication::presentError(const Error& error) {
  Hook hook;
  {
    const Lock lock(mutex_);
    errors_.push_back(error);
    hook = duringError_;
  }
  if (hook) hook();
}

void FakeApplication::runAlert(const Alert& alert) {
  Hook hook;
  {
    const Lock lock(mutex_);
    alerts_.push_back(alert);
    hook = duringAlert_;
  }
  if (hook) hook();
}

FolderChooserAnswer FakeApplication::chooseFolder(const FolderChooserRequest& request) {
  ChooserScript script;
  {
    const Lock lock(mutex_);
    chooserRequests_.push_back(request);
    chooserRequests_.back().shouldEnable = nullptr;
    if (!chooserScripts_.empty()) {
      script = std::move(chooserScripts_.front());
      chooserScripts_.pop_front();
    }
  }
  return script ? script(request) : FolderChooserAnswer{};
}

std::string FakeApplication::localizedString(const std::string& key) {
  const Lock lock(mutex_);
  localizedKeys_.push_back(key);
  const auto found = translations_.find(key);
  return found == translations_.end() ? key : found->second;
}

Dictionary FakeApplication::pluginInformation() {
  const Lock lock(mutex_);
  return information_;
}

std::optional<Data> FakeApplication::makeBookmark(const Url& url) {
  BookmarkMaker maker;
  {
    const Lock lock(mutex_);
    bookmarksMade_.push_back(url);
    maker = maker_;
  }
  return maker ? maker(url) : bookmarkOf(url);
}

std::optional<ResolvedBookmark> FakeApplication::resolveBookmark(const Data& bookmark) {
  BookmarkResolver resolver;
  {
    const Lock lock(mutex_);
    bookmarksResolved_.push_back(bookmark);
    resolver = resolver_;
  }
  if (resolver) return resolver(bookmark);
  if (!bookmark.bytes.starts_with(kBookmarkPrefix)) return std::nullopt;
  return ResolvedBookmark{Url::file(bookmark.bytes.substr(kBookmarkPrefix.size())), false};
}

void FakeApplication::startAccessing(const Url& url) {
  UrlHook hook;
  {
    const Lock lock(mutex_);
    accesses_.push_back(url);
    hook = onStartAccessing_;
  }
  if (hook) hook(url);
}

void FakeApplication::observe(Notice notice, std::weak_ptr<void> observer,
                              TerminationCallback callback) {
  const Lock lock(mutex_);
  registrations_.push_back({++registered_, notice, std::move(observer), std::move(callback)});
}

void FakeApplication::removeObserver(Notice notice, const std::weak_ptr<void>& observer) {
  std::vector<Registration> removed;  // destroyed after the lock is released
  const Lock lock(mutex_);
  const auto kept = std::stable_partition(
      registrations_.begin(), registrations_.end(), [&](const Registration& registration) {
        return registration.notice != notice || !sameObserver(registration.observer, observer);
      });
  removed.assign(std::make_move_iterator(kept), std::make_move_iterator(registrations_.end()));
  registrations_.erase(kept, registrations_.end());
}

std::size_t FakeApplication::observers(Notice notice) const {
  const Lock lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      registrations_.begin(), registrations_.end(), [notice](const Registration& registration) {
        return registration.notice == notice && !registration.observer.expired();
      }));
}

void FakeApplication::send(Notice notice, const TerminatedApplication& application) {
  int last = 0;
  {
    const Lock lock(mutex_);
    last = registered_;
  }
  // Looked up anew for each call, since a callback may remove or add registrations.
  for (int after = 0;;) {
    std::shared_ptr<void> observer;
    TerminationCallback callback;
    {
      const Lock lock(mutex_);
      const auto next = std::find_if(
          registrations_.begin(), registrations_.end(), [&](const Registration& registration) {
            return registration.notice == notice && registration.number > after &&
                   registration.number <= last;
          });
      if (next == registrations_.end()) return;
      after = next->number;
      observer = next->observer.lock();
      callback = next->callback;
    }
    if (observer) callback(application);
  }
}

}  // namespace thmp
