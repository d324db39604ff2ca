// SPDX-License-Identifier: Apache-2.0
//
// exchange-probe connect ROUNDS
//     Connect to PluginReady, microseconds, one a line
// exchange-probe raw FOLDER ROUNDS
//     the same by a bare loop in FOLDER
// exchange-probe search PREDICATE
//     one search, all read: first batch read (microseconds), all read (microseconds), items
// exchange-probe arrival PREDICATE FROM TO..
//     a live search; each FROM is renamed to its TO, and the microseconds until its QueryHasUpdates
//     are printed
// exchange-probe live QUERIES RATE FROM TO..
//     live searches by author, author0@live.example.org and so on; RATE changes a second: each
//     FROM, by the authors in turn, is renamed to its TO, and later gets a flag, and later goes;
//     printed as by arrival
//
// Writes and reads as tallyhive-mail does, and prints no mail. One thread.
#include <stdio.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "base/PropertyListView.h"
#include "base/plist.h"
#include "benchmarks/raw_exchange.h"
#include "client/Exchange.h"
#include "client/handshake.h"
#include "messaging/message_names.h"
#include "platform/linux/PasteboardReader.h"

namespace thmp::benchmarks {
namespace {

using Clock = std::chrono::steady_clock;
using client::Message;

constexpr char kClient[] = "exchange-probe";
constexpr std::chrono::seconds kPatience{60};

double microseconds(Clock::time_point since) {
  return std::chrono::duration<double, std::micro>(Clock::now() - since).count();
}

void print(const std::vector<double>& times) {
  for (const double time : times) ::printf("%.1f\n", time);
}

// What a client takes a value into.
struct Taken {
  std::string text;
  std::string room;
  Value plain;
};

// Takes all that stands in a value, each text and number as often as it is referred to.
void takeAll(const PropertyListView& list, PropertyListView::Object object, Taken& taken) {
  const auto takeMembers = [&](const PropertyListView::Members& members) {
    for (std::size_t i = 0; i < members.size(); ++i) takeAll(list, members[i], taken);
  };
  switch (list.kind(object)) {
    case Value::Kind::kText:
    case Value::Kind::kData:
      taken.text.assign(list.bytes(object, taken.room));
      return;
    case Value::Kind::kArray:
      return takeMembers(list.elements(object));
    case Value::Kind::kDictionary:
      takeMembers(list.entries(object).keys);
      return takeMembers(list.entries(object).values);
    default:
      taken.plain = list.plain(object);
  }
}

// Of a batch, with all attributes; how many there are.
std::size_t readMessages(const PropertyListView& list) {
  const auto messages = list.find(list.root(), kMessagesKey);
  if (!messages || list.kind(*messages) != Value::Kind::kArray) return 0;
  Taken taken;
  takeAll(list, *messages, taken);
  return list.elements(*messages).size();
}

// A search as its client follows it, each batch read whole and cleared.
class Search {
 public:
  Search(client::Exchange& exchange, std::string predicate)
      : exchange_(exchange),
        pasteboards_(XdgFolders::fromEnvironment().cache),
        predicate_(std::move(predicate)),
        name_(client::freshName("exchange-probe-")) {}
  ~Search() { post(kCancelName, {}); }
  Search(const Search&) = delete;
  Search& operator=(const Search&) = delete;

  bool begin() {
    begun_ = Clock::now();
    return post(kSearchName, {{kVersionKey, "1"}, {kQueryStringKey, predicate_}});
  }

  bool gather() {
    return waitUntil([this] { return gathered_; });
  }

  // Until one batch more has been announced; it is read after the time was taken.
  bool awaitUpdate() {
    const std::size_t before = announced_;
    return waitUntil([this, before] { return announced_ > before; });
  }

  Clock::time_point lastAnnounced() const { return lastAnnounced_; }
  Clock::time_point begun() const { return begun_; }
  double firstRead() const { return firstRead_; }
  std::size_t items() const { return items_; }

 private:
  bool post(std::string_view name, Dictionary info) {
    info.set(kClientNameKey, Value(kClient));
    info.set(kUniqueNameKey, Value(name_));
    return static_cast<bool>(exchange_.post(name, info));
  }

  template <typename Condition>
  bool waitUntil(const Condition& holds) {
    while (!holds()) {
      look();
      if (holds()) break;
      if (exchange_.wait(Clock::now() + kPatience) != client::Wake::kFolder) return false;
    }
    return !failed_;
  }

  void look() {
    std::vector<Message> messages = take();
    for (const Message& message : messages) gathered_ |= message.name == kQueryDidCompleteName;
    // What was posted before the completion is there by now.
    if (gathered_) {
      for (Message& more : take()) messages.push_back(std::move(more));
    }
    std::map<std::uint64_t, std::string> batches;
    for (const Message& message : messages) {
      failed_ |= message.userInfo.contains(kErrorCodeKey);
      if (message.name != kQueryHasUpdatesName) continue;
      batches[message.userInfo[kBatchNumberKey].asUnsigned().value_or(0)] =
          message.userInfo[kBatchNameKey].asText().value_or("");
    }
    if (!batches.empty()) lastAnnounced_ = Clock::now();
    announced_ += batches.size();
    for (const auto& [number, name] : batches) read(name);
  }

  std::vector<Message> take() {
    return exchange_.take([this](const Message& message) {
      return message.userInfo[kUniqueNameKey].asText() == name_;
    });
  }

  void read(const std::string& batch) {
    const auto bytes = pasteboards_.readBytes(batch, kResultsBatchType, kBatchLimits.maxBytes);
    const auto list = bytes ? PropertyListView::open(*bytes, kBatchLimits) : std::nullopt;
    failed_ |= !list;
    if (list) items_ += readMessages(*list);
    if (firstRead_ == 0) firstRead_ = microseconds(begun_);
    post(kClearName, {{kBatchNameKey, batch}});
  }

  client::Exchange& exchange_;
  const PasteboardReader pasteboards_;
  const std::string predicate_;
  const std::string name_;
  Clock::time_point begun_;
  Clock::time_point lastAnnounced_;
  bool gathered_ = false;
  bool failed_ = false;
  std::size_t announced_ = 0;
  std::size_t items_ = 0;
  double firstRead_ = 0;
};

bool connect(client::Exchange& exchange, int rounds) {
  std::vector<double> times;
  for (int round = 0; round < rounds; ++round) {
    int status = 0;
    const auto begun = Clock::now();
    if (!client::shakeHands({kClient, false, kPatience}, exchange, status)) return false;
    times.push_back(microseconds(begun));
  }
  print(times);
  return true;
}

bool search(client::Exchange& exchange, const std::string& predicate) {
  Search search(exchange, predicate);
  if (!search.begin() || !search.gather()) return false;
  ::printf("%.1f\n%.1f\n%zu\n", search.firstRead(), microseconds(search.begun()), search.items());
  return true;
}

bool arrival(client::Exchange& exchange, const std::string& predicate,
             const std::vector<std::string>& paths) {
  Search search(exchange, predicate);
  if (!search.begin() || !search.gather()) return false;
  std::vector<double> times;
  for (std::size_t i = 0; i + 1 < paths.size(); i += 2) {
    const auto begun = Clock::now();
    if (::rename(paths[i].c_str(), paths[i + 1].c_str()) != 0) return false;
    if (!search.awaitUpdate()) return false;
    times.push_back(
        std::chrono::duration<double, std::micro>(search.lastAnnounced() - begun).count());
  }
  print(times);
  return true;
}

bool live(client::Exchange& exchange, int queries, int rate,
          const std::vector<std::string>& paths) {
  std::vector<std::unique_ptr<Search>> searches;
  for (int i = 0; i < queries; ++i) {
    const std::string author = "author" + std::to_string(i) + "@live.example.org";
    searches.push_back(
        std::make_unique<Search>(exchange, "kMDItemAuthorEmailAddresses == \"" + author + "\""));
    if (!searches.back()->begin() || !searches.back()->gather()) return false;
  }
  // Each message comes, is flagged when `kFlagged` others have come, and goes after as many more.
  constexpr std::size_t kFlagged = 10;
  const auto flagged = [](const std::string& path) { return path + ":2,F"; };
  const auto interval = std::chrono::microseconds(1'000'000 / rate);
  const std::size_t messages = paths.size() / 2;
  std::vector<double> times;
  auto next = Clock::now();
  const auto pace = [&] { std::this_thread::sleep_until(next += interval); };
  for (std::size_t i = 0; i < messages; ++i) {
    pace();
    const auto begun = Clock::now();
    Search& search = *searches[i % searches.size()];
    if (::rename(paths[2 * i].c_str(), paths[2 * i + 1].c_str()) != 0) return false;
    if (!search.awaitUpdate()) return false;
    times.push_back(
        std::chrono::duration<double, std::micro>(search.lastAnnounced() - begun).count());
    if (i >= kFlagged) {
      pace();
      const std::string& path = paths[2 * (i - kFlagged) + 1];
      if (::rename(path.c_str(), flagged(path).c_str()) != 0) return false;
    }
    if (i >= 2 * kFlagged) {
      pace();
      if (::unlink(flagged(paths[2 * (i - 2 * kFlagged) + 1]).c_str()) != 0) return false;
    }
  }
  print(times);
  return true;
}

int number(const std::string& text) {
  int value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

bool run(const std::vector<std::string>& words) {
  if (words.size() == 3 && words[0] == "raw") {
    const std::vector<double> times = rawRoundTrips(words[1], number(words[2]));
    print(times);
    return !times.empty();
  }
  const auto exchange = client::Exchange::open(XdgFolders::fromEnvironment());
  if (!exchange || words.size() < 2) return false;
  (*exchange)->ignoreOutput();
  if (words[0] == "connect") return connect(**exchange, number(words[1]));
  if (words[0] == "search") return search(**exchange, words[1]);
  if (words[0] == "live" && words.size() > 3) {
    return live(**exchange, number(words[1]), number(words[2]), {words.begin() + 3, words.end()});
  }
  return words[0] == "arrival" && arrival(**exchange, words[1], {words.begin() + 2, words.end()});
}

}  // namespace
}  // namespace thmp::benchmarks

int main(int count, char** words) {
  if (thmp::benchmarks::run({words + 1, words + count})) return 0;
  ::fputs("exchange-probe: no answer, or wrong usage\n", stderr);
  return 1;
}
