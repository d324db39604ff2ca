// SPDX-License-Identifier: Apache-2.0
//
// A plug-in on the platform whose calls may fail, the clients and the engine around it, and what
// holds of them whatever has failed. One thread.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "messaging/message_names.h"
#include "plugin/ProcessState.h"
#include "plugin/THMPMailPlugin.h"
#include "tests/faults/FaultyPlatform.h"

namespace thmp::faults {

class FaultWorld : public FaultyPlatform {
 public:
  using Engine = std::shared_ptr<ScriptedSpotlightQuery>;

  FaultWorld() = default;
  ~FaultWorld() { endProcess(); }
  FaultWorld(const FaultWorld&) = delete;
  FaultWorld& operator=(const FaultWorld&) = delete;

  /// The host loads the plug-in, and its main queue runs.
  void start();
  /// The host has ended and is started again.
  void restart();
  void run() { fake.runUntilIdle(); }

  /// A client's message, placed into the inbox and written down. It is not handled before run().
  void send(const char* name, const Dictionary& userInfo);
  /// The same, handled.
  void tell(const char* name, const Dictionary& userInfo);
  /// A message given to its handler, without the exchange around it.
  void hand(const char* name, const Dictionary& userInfo);
  /// A search of `client`, handled: the engine's query, or null when none was made.
  Engine search(const std::string& name, const std::string& client = "c",
                const Dictionary& more = {});
  /// The engine finds `count` messages that the library knows.
  void deliver(const Engine& query, std::int64_t count = 1);
  /// The pending batches of a query, oldest first.
  std::vector<std::string> pending(const std::string& query) const;

  /// No crash is not enough: the exchange holds whole messages only, no request was handled twice
  /// or lost without a word, every pasteboard is in one place, batches are whole and numbered.
  void checkInvariants();
  /// With nothing failing any more, a connect, a search, a batch, a clear and a cancel work. Only a
  /// fault of the start itself may need the host's next activation or start before.
  void checkWorksAgain();

  /// Whether memory has run out: what was under way then may be dropped, with one line, and its
  /// pasteboard may stay out until the host quits.
  bool memoryRanOut = false;
  /// Pasteboards of a record that another may take the place of: they stay out of the pool then.
  std::vector<std::string> mayStayOut;
  std::unique_ptr<Platform> bundle;
  std::unique_ptr<ProcessState> process;
  /// Null before the start, and when it came to nothing.
  std::shared_ptr<THMPMailPlugin> plugin;

 private:
  struct Request {
    std::string file;  // none when it was handed over
    /// How the plug-in's log says that it has received the message.
    std::string received;
    bool beforeStart;
  };

  void note(const std::string& file, const char* name, const Dictionary& userInfo);
  void endProcess();
  std::size_t postFailures() const;
  std::size_t droppedSteps() const;
  std::size_t received(const std::string& line) const;
  bool answers(const std::string& client);
  bool mayBeDeaf();
  void checkExchange();
  void checkRequests();
  void checkPasteboards();
  void checkBatches();
  void checkPosted();
  void checkLogs();

  std::vector<Request> requests_;
  std::int64_t lastMail_ = 0;
  int recoveries_ = 0;
};

}  // namespace thmp::faults
