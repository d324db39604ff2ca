// SPDX-License-Identifier: Apache-2.0
//
// Live mail search for programs: ask the mail plug-in, hear what is found, and go on hearing what
// comes and goes. Link tallyhive::client (CMake) or tallyhive-client (pkg-config).
//
// A Client makes no threads and touches no signals. It has a descriptor to wait for in a loop of
// one's own, or wait() does that; handlers run inside dispatch() and wait(), on the thread that
// calls them. They may use the client, but not destroy it, and throw nothing: an exception that
// leaves one ends the process. Use each Client from one thread at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#if defined(__GNUC__)
#define TALLYHIVE_EXPORT __attribute__((visibility("default")))
#else
#define TALLYHIVE_EXPORT
#endif

namespace tallyhive {

using Instant = std::chrono::time_point<std::chrono::system_clock, std::chrono::milliseconds>;
using Bytes = std::vector<std::byte>;
using Headers = std::map<std::string, std::vector<std::string>>;

/// What an attribute can be. Texts are UTF-8.
using Attribute = std::variant<bool, std::int64_t, double, Instant, std::string,
                               std::vector<std::string>, std::vector<Bytes>, Headers>;

struct Message {
  /// The same for as long as the message's file exists.
  std::uint64_t libraryID = 0;
  /// Its place among all that the search has delivered, from 0.
  std::uint64_t index = 0;
  /// Of the message's file, absolute.
  std::string path;
  /// What is known of it, by the names of tallyhive-query(7).
  std::map<std::string, Attribute, std::less<>> attributes;

  /// The attribute, when the message has it and it is a T; otherwise null.
  template <typename T>
  const T* get(std::string_view name) const {
    const auto found = attributes.find(name);
    return found == attributes.end() ? nullptr : std::get_if<T>(&found->second);
  }
};

struct Batch {
  std::string name;
  /// 1, 2, ... over the whole life of the search.
  std::uint64_t number = 0;
  std::vector<Message> messages;
  /// The batch was announced but could not be read; its messages stay unknown.
  bool isLost = false;
};

struct Query {
  /// In the query language; empty finds all mail.
  std::string predicate = {};
  /// A new search ends the client's earlier ones of the same lineage, without a word.
  std::optional<std::string> lineage = std::nullopt;
  /// Newest first when not given. Each delivery of up to 5,000 messages is sorted by itself.
  std::optional<std::string> sortingAttribute = std::nullopt;
  bool ascending = false;
  /// Gives each batch back to the plug-in once the handler has returned. Otherwise it stays with
  /// the plug-in until Client::clear(), or the search's end.
  bool clearsBatches = true;
};

struct Ending {
  enum class Reason {
    kFailed,    // `code`, `domain` and `message` say why; -2002 is a query that does not parse
    kFinished,  // the plug-in has ended it
    kHostGone,  // the mail host has quit or was started anew; search again
  };
  Reason reason = Reason::kFinished;
  std::int64_t code = 0;
  std::string domain;
  std::string message;
};

/// Each may be empty. They are called in this order, `found` and `removed` again as mail comes and
/// goes after `gathered`; nothing follows `ended`, which a search that is cancelled does not have.
struct Handlers {
  std::function<void(const Batch& batch)> found = {};
  std::function<void(const std::vector<std::uint64_t>& libraryIDs)> removed = {};
  /// All mail that matched when the search began has been delivered.
  std::function<void()> gathered = {};
  std::function<void(const Ending& ending)> ended = {};
};

class TALLYHIVE_EXPORT Client {
 public:
  /// Asks whether a plug-in is there. Null when none answers in time or the folders of the exchange
  /// cannot be used; `problem`, unless null, then says what to do in one line.
  static std::unique_ptr<Client> connect(
      std::string name, std::chrono::milliseconds timeout = std::chrono::seconds(5),
      std::string* problem = nullptr);

  /// cancelAll() with a second of patience.
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Begins a live search. Returns its unique name; empty, with `problem` filled, when the request
  /// cannot be written. While no host runs it waits for the next one.
  std::string search(const Query& query, Handlers handlers, std::string* problem = nullptr);

  /// Ends a search: none of its handlers is called any more. An unknown name is left alone.
  void cancel(const std::string& search);

  /// Ends all searches and waits until the plug-in has taken note. False when it has not in time:
  /// what it says of them later stays where it is.
  bool cancelAll(std::chrono::milliseconds patience);

  /// Gives a batch back, for a search that does not do so by itself.
  void clear(const std::string& search, const std::string& batch);

  /// Readable when dispatch() has something to look at. Owned by the client.
  int descriptor() const;

  /// Looks at what has come and calls the handlers; never waits.
  void dispatch();

  /// Waits for something to come and dispatches it; without a timeout as long as it takes, or until
  /// a signal has been handled. False when nothing came.
  bool wait(std::optional<std::chrono::milliseconds> timeout = std::nullopt);

  /// The version that the plug-in gave in its answer.
  const std::string& pluginVersion() const;

 private:
  class State;
  explicit Client(std::unique_ptr<State> state);
  const std::unique_ptr<State> state_;
};

}  // namespace tallyhive
