// SPDX-License-Identifier: Apache-2.0
#include <memory>
#include <string>
#include <utility>

#include "client/library/ClientState.h"
#include "client/library/tallyhive/client.h"

namespace tallyhive {
namespace {

void tell(std::string* problem, std::string what) {
  if (problem != nullptr) *problem = std::move(what);
}

}  // namespace

Client::Client(std::unique_ptr<State> state) : state_(std::move(state)) {}

Client::~Client() { state_->cancelAll(std::chrono::seconds(1)); }

std::unique_ptr<Client> Client::connect(std::string name, std::chrono::milliseconds timeout,
                                        std::string* problem) {
  thmp::Result<std::unique_ptr<State>> state = State::open(std::move(name));
  if (!state) {
    tell(problem, state.error().description);
    return nullptr;
  }
  const thmp::Result<bool> answered = (*state)->connect(timeout);
  if (!answered || !*answered) {
    tell(problem, answered ? "no plug-in answers; start a host with \"tallyhive-mailhost serve\""
                           : answered.error().description);
    return nullptr;
  }
  return std::unique_ptr<Client>(new Client(*std::move(state)));
}

std::string Client::search(const Query& query, Handlers handlers, std::string* problem) {
  thmp::Result<std::string> name = state_->search(query, std::move(handlers));
  if (name) return *std::move(name);
  tell(problem, name.error().description);
  return {};
}

void Client::cancel(const std::string& search) { state_->cancel(search); }

bool Client::cancelAll(std::chrono::milliseconds patience) { return state_->cancelAll(patience); }

void Client::clear(const std::string& search, const std::string& batch) {
  state_->clear(search, batch);
}

int Client::descriptor() const { return state_->descriptor(); }

void Client::dispatch() { state_->dispatch(); }

bool Client::wait(std::optional<std::chrono::milliseconds> timeout) {
  return state_->wait(timeout);
}

const std::string& Client::pluginVersion() const { return state_->pluginVersion(); }

}  // namespace tallyhive
