// SPDX-License-Identifier: Apache-2.0
//
// A client of the library for others, led by lines on standard input; it tells each call of a
// handler in a line.
//
//   search LABEL LINEAGE PREDICATE
//     "-" for no lineage; a LABEL that ends in "+" clears its batches by itself
//   cancel LABEL
//   clear LABEL
//     all batches of a search that have been found
//   cancel-in-handler LABEL
//     from the next batch's handler on
//   patience MILLISECONDS
//     with the plug-in at the end of input; the exit status is 4 when it takes longer
//
// client_probe [MILLISECONDS]: how long it waits for the plug-in.
#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "client/library/tallyhive/client.h"

namespace {

struct Probe {
  std::unique_ptr<tallyhive::Client> client;
  std::map<std::string, std::string> names;  // of searches, by label
  std::map<std::string, std::vector<std::string>> batches;
  std::set<std::string> cancelling;
  std::chrono::milliseconds patience{240'000};

  tallyhive::Handlers handlersOf(const std::string& label) {
    tallyhive::Handlers handlers;
    handlers.found = [this, label](const tallyhive::Batch& batch) { found(label, batch); };
    handlers.removed = [label](const std::vector<std::uint64_t>& ids) {
      for (const std::uint64_t id : ids) std::cout << label << " removed " << id << std::endl;
    };
    handlers.gathered = [label] { std::cout << label << " gathered" << std::endl; };
    handlers.ended = [label](const tallyhive::Ending& ending) {
      constexpr std::array<const char*, 3> kReasons{"failed", "finished", "host-gone"};
      std::cout << label << " ended " << kReasons.at(static_cast<std::size_t>(ending.reason)) << ' '
                << ending.code << ' ' << ending.message << std::endl;
    };
    return handlers;
  }

  void found(const std::string& label, const tallyhive::Batch& batch) {
    std::cout << label << " batch " << batch.number << (batch.isLost ? " lost" : "") << std::endl;
    for (const tallyhive::Message& message : batch.messages) {
      const auto* subject = message.get<std::string>("kMDItemSubject");
      std::cout << label << " found " << message.libraryID << ' ' << (subject ? *subject : "-")
                << std::endl;
    }
    batches[label].push_back(batch.name);
    if (cancelling.erase(label) > 0) client->cancel(names[label]);
  }

  void obey(const std::string& line) {
    std::istringstream in(line);
    std::string command;
    std::string label;
    in >> command >> label;
    if (command == "search") {
      tallyhive::Query query;
      std::string lineage;
      in >> lineage >> std::ws;
      std::getline(in, query.predicate);
      if (lineage != "-") query.lineage = lineage;
      query.clearsBatches = !label.ends_with('+');
      names[label] = client->search(query, handlersOf(label));
    } else if (command == "cancel") {
      client->cancel(names[label]);
    } else if (command == "cancel-in-handler") {
      cancelling.insert(label);
    } else if (command == "patience") {
      patience = std::chrono::milliseconds(std::atoi(label.c_str()));
    } else if (command == "clear") {
      for (const std::string& batch : batches[label]) client->clear(names[label], batch);
    }
  }
};

// Whole lines that have come; false at the end of the input.
bool readLines(std::string& rest, Probe& probe) {
  std::array<char, 4096> buffer{};
  const ssize_t size = ::read(STDIN_FILENO, buffer.data(), buffer.size());
  if (size <= 0) return false;
  rest.append(buffer.data(), static_cast<std::size_t>(size));
  for (std::size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
    probe.obey(rest.substr(0, end));
    rest.erase(0, end + 1);
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  Probe probe;
  if (count > 1) probe.patience = std::chrono::milliseconds(std::atoi(arguments[1]));
  std::string problem;
  probe.client = tallyhive::Client::connect("probe", probe.patience, &problem);
  if (!probe.client) {
    std::cout << problem << std::endl;
    return 3;
  }
  std::cout << "connected to version " << probe.client->pluginVersion() << std::endl;
  std::string rest;
  while (true) {
    std::array<pollfd, 2> waiting{pollfd{STDIN_FILENO, POLLIN, 0},
                                  pollfd{probe.client->descriptor(), POLLIN, 0}};
    if (::poll(waiting.data(), waiting.size(), -1) < 0) return 1;
    if (waiting[1].revents != 0) probe.client->dispatch();
    if (waiting[0].revents != 0 && !readLines(rest, probe)) {
      return probe.client->cancelAll(probe.patience) ? 0 : 4;
    }
  }
}
