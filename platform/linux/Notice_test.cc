// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/Notice.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace thmp {
namespace {

TEST(Notice, ObserverThatThrowsDoesNotKeepItFromTheOthers) {
  Notice<std::string> notice;
  const auto observer = std::make_shared<int>(0);
  std::string seen;
  notice.add(observer, [](const std::string&) { throw std::runtime_error("thrown"); });
  notice.add(observer, [&](const std::string& text) { seen = text; });
  notice.give("text");
  EXPECT_EQ(seen, "text");
}

TEST(Notice, ObserverLivesThroughItsCall) {
  Notice<> notice;
  auto observer = std::make_shared<int>(0);
  const std::weak_ptr<int> weak = observer;
  bool alive = false;
  notice.add(observer, [&] {
    observer.reset();
    alive = !weak.expired();
  });
  notice.give();
  EXPECT_TRUE(alive);
  EXPECT_TRUE(weak.expired());
}

TEST(Notice, ObserverRemovedByAnEarlierOneIsNotCalled) {
  Notice<> notice;
  const auto first = std::make_shared<int>(0);
  const auto second = std::make_shared<int>(0);
  bool called = false;
  notice.add(first, [&] { notice.remove(second); });
  notice.add(second, [&] { called = true; });
  notice.give();
  EXPECT_FALSE(called);
}

TEST(Notice, ObserverMayBeRemovedFromItsOwnDestructor) {
  // By then it can no longer be promoted; it is known by what counted it.
  Notice<> notice;
  struct Observer : std::enable_shared_from_this<Observer> {
    explicit Observer(Notice<>& given) : notice(given) {}
    ~Observer() { notice.remove(weak_from_this()); }
    Notice<>& notice;
  };
  int calls = 0;
  auto observer = std::make_shared<Observer>(notice);
  notice.add(observer, [&] { ++calls; });
  notice.give();
  observer.reset();
  notice.give();
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace thmp
