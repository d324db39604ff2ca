// SPDX-License-Identifier: Apache-2.0
#include "tests/contract/fixtures.h"

namespace thmp {
namespace {

using Calls = std::vector<std::string>;

class ApplicationContract : public contract::ContractTest<contract::ApplicationFixture,
                                                          &contract::Implementation::application> {
 protected:
  Application& application() { return fixture().application(); }

  /// A callback that notes `name`.
  Application::Callback note(const std::string& name) {
    return [this, name] { calls_.push_back(name); };
  }

  static std::shared_ptr<void> makeObserver() { return std::make_shared<int>(0); }

  Calls calls_;
};

THMP_RUN_CONTRACT(ApplicationContract);

TEST_P(ApplicationContract, ObserversAreCalledInTheOrderOfRegistration) {
  const auto first = makeObserver();
  const auto second = makeObserver();
  application().observeWillTerminate(first, note("first"));
  application().observeWillTerminate(second, note("second"));
  application().observeWillTerminate(first, note("first again"));
  fixture().sendWillTerminate();

  EXPECT_EQ(calls_, (Calls{"first", "second", "first again"}));
}

TEST_P(ApplicationContract, EachNoticeReachesItsOwnObservers) {
  const auto observer = makeObserver();
  application().observeWillTerminate(observer, note("quit"));
  application().observeDidBecomeActive(observer, note("active"));
  application().observeApplicationTerminated(
      observer, [this](const TerminatedApplication&) { calls_.emplace_back("other quit"); });

  fixture().sendDidBecomeActive();
  EXPECT_EQ(calls_, Calls{"active"});
  fixture().sendApplicationTerminated("com.example.client");
  EXPECT_EQ(calls_, (Calls{"active", "other quit"}));
  fixture().sendWillTerminate();
  EXPECT_EQ(calls_, (Calls{"active", "other quit", "quit"}));
}

TEST_P(ApplicationContract, NoticeComesAsOftenAsItIsSent) {
  const auto observer = makeObserver();
  application().observeDidBecomeActive(observer, note("active"));
  fixture().sendDidBecomeActive();
  fixture().sendDidBecomeActive();

  EXPECT_EQ(calls_.size(), 2U);
}

TEST_P(ApplicationContract, WeakObserverGoneIsNotCalled) {
  auto gone = makeObserver();
  const auto stays = makeObserver();
  application().observeDidBecomeActive(gone, note("gone"));
  application().observeWillTerminate(gone, note("gone"));
  application().observeApplicationTerminated(
      gone, [this](const TerminatedApplication&) { calls_.emplace_back("gone"); });
  application().observeDidBecomeActive(stays, note("stays"));
  gone.reset();
  fixture().sendDidBecomeActive();
  fixture().sendApplicationTerminated("com.example.client");
  fixture().sendWillTerminate();

  EXPECT_EQ(calls_, Calls{"stays"});
}

TEST_P(ApplicationContract, RegistrationDoesNotKeepItsObserverAlive) {
  auto observer = makeObserver();
  const std::weak_ptr<void> weak = observer;
  application().observeDidBecomeActive(observer, note("active"));
  fixture().sendDidBecomeActive();
  observer.reset();

  EXPECT_TRUE(weak.expired());
}

TEST_P(ApplicationContract, ObserverLivesThroughItsCall) {
  auto observer = makeObserver();
  const std::weak_ptr<void> weak = observer;
  bool alive = false;
  application().observeDidBecomeActive(observer, [&] {
    observer.reset();
    alive = !weak.expired();
  });
  fixture().sendDidBecomeActive();

  EXPECT_TRUE(alive);
  EXPECT_TRUE(weak.expired());
}

TEST_P(ApplicationContract, RemovedObserverIsNotCalled) {
  const auto observer = makeObserver();
  const auto other = makeObserver();
  application().observeDidBecomeActive(observer, note("removed"));
  application().observeDidBecomeActive(other, note("other"));
  application().removeDidBecomeActiveObserver(observer);
  fixture().sendDidBecomeActive();

  EXPECT_EQ(calls_, Calls{"other"});
}

TEST_P(ApplicationContract, RemovalTakesAllRegistrationsOfOneNoticeOnly) {
  const auto observer = makeObserver();
  application().observeDidBecomeActive(observer, note("active"));
  application().observeDidBecomeActive(observer, note("active again"));
  application().observeWillTerminate(observer, note("quit"));
  application().removeDidBecomeActiveObserver(observer);
  fixture().sendDidBecomeActive();
  fixture().sendWillTerminate();

  EXPECT_EQ(calls_, Calls{"quit"});
}

TEST_P(ApplicationContract, RemovingAnObserverThatNeverRegisteredChangesNothing) {
  const auto observer = makeObserver();
  application().observeDidBecomeActive(observer, note("active"));
  application().removeDidBecomeActiveObserver(makeObserver());
  application().removeApplicationTerminatedObserver(observer);
  fixture().sendDidBecomeActive();

  EXPECT_EQ(calls_, Calls{"active"});
}

TEST_P(ApplicationContract, RemoveObserverFromInsideItsCallback) {
  const auto observer = makeObserver();
  const auto later = makeObserver();
  application().observeDidBecomeActive(observer, [&] {
    calls_.emplace_back("once");
    application().removeDidBecomeActiveObserver(observer);
  });
  application().observeDidBecomeActive(later, note("later"));
  fixture().sendDidBecomeActive();
  fixture().sendDidBecomeActive();

  EXPECT_EQ(calls_, (Calls{"once", "later", "later"}));
}

TEST_P(ApplicationContract, ObserverRemovedByAnEarlierOneIsNotCalled) {
  const auto first = makeObserver();
  const auto second = makeObserver();
  application().observeApplicationTerminated(first, [&](const TerminatedApplication&) {
    calls_.emplace_back("first");
    application().removeApplicationTerminatedObserver(second);
  });
  application().observeApplicationTerminated(
      second, [this](const TerminatedApplication&) { calls_.emplace_back("second"); });
  fixture().sendApplicationTerminated("com.example.client");

  EXPECT_EQ(calls_, Calls{"first"});
}

TEST_P(ApplicationContract, RemovalWorksWithTheObserversLastWeakReference) {
  auto observer = makeObserver();
  const std::weak_ptr<void> weak = observer;
  application().observeDidBecomeActive(observer, note("gone"));
  observer.reset();
  application().removeDidBecomeActiveObserver(weak);
  fixture().sendDidBecomeActive();

  EXPECT_TRUE(calls_.empty());
}

TEST_P(ApplicationContract, RegisteringFromInsideACallbackWorks) {
  const auto observer = makeObserver();
  application().observeDidBecomeActive(observer, [&] {
    if (calls_.empty()) application().observeDidBecomeActive(observer, note("inner"));
    calls_.emplace_back("outer");
  });
  fixture().sendDidBecomeActive();
  fixture().sendDidBecomeActive();

  EXPECT_EQ(calls_.back(), "inner");
}

TEST_P(ApplicationContract, TerminationNoticeCarriesTheIdentifierInBothPlaces) {
  const auto observer = makeObserver();
  std::vector<TerminatedApplication> notices;
  application().observeApplicationTerminated(
      observer, [&](const TerminatedApplication& notice) { notices.push_back(notice); });
  fixture().sendApplicationTerminated("com.example.client");

  ASSERT_EQ(notices.size(), 1U);
  EXPECT_EQ(notices[0].bundleIdentifier, Value("com.example.client"));
  EXPECT_EQ(notices[0].applicationBundleIdentifier, Value("com.example.client"));
}

TEST_P(ApplicationContract, ApplicationThatHasQuitDoesNotRun) {
  const auto observer = makeObserver();
  bool running = true;
  application().observeApplicationTerminated(observer, [&](const TerminatedApplication&) {
    running = application().hasRunningApplication("com.example.client");
  });
  fixture().sendApplicationTerminated("com.example.client");

  EXPECT_FALSE(running);
}

TEST_P(ApplicationContract, UnknownApplicationsDoNotRun) {
  EXPECT_FALSE(application().hasRunningApplication("com.example.unknown"));
  EXPECT_FALSE(application().hasRunningApplication(""));
  EXPECT_FALSE(application().hasRunningApplication("../unknown"));
}

TEST_P(ApplicationContract, UntranslatedTextIsItsKey) {
  const std::string key = "A text that nobody has translated: \"100 %\" %@";

  EXPECT_EQ(application().localizedString(key), key);
  EXPECT_EQ(application().localizedString(""), "");
}

TEST_P(ApplicationContract, BookmarkLeadsBackToItsFolder) {
  const Url folder = Url::file(fixture().scene().freshFolder());

  const auto bookmark = application().makeBookmark(folder);
  ASSERT_TRUE(bookmark);
  const auto resolved = application().resolveBookmark(*bookmark);
  ASSERT_TRUE(resolved);
  EXPECT_EQ(resolved->url, folder);
  EXPECT_FALSE(resolved->stale);
}

TEST_P(ApplicationContract, DataThatIsNoBookmarkLeadsNowhere) {
  for (const std::string& bytes : {std::string(), std::string("no bookmark"), std::string(1, 0)}) {
    EXPECT_FALSE(application().resolveBookmark(Data{bytes})) << bytes;
  }
}

}  // namespace
}  // namespace thmp
