// SPDX-License-Identifier: Apache-2.0
//
// What clients say to the plug-in, and how their queries end: the handlers of messages, the control
// operations behind them, and the notice that an application has quit.
//
// Payload texts are read by textAt(): a value of another kind counts as missing, the client name
// too, so that a client that calls itself 7 is a client without a name.
#include <algorithm>
#include <array>
#include <utility>

#include "messaging/message_names.h"
#include "plugin/THMPMailPlugin.h"

namespace thmp {
namespace {

constexpr std::array<std::string_view, 2> kClientIdentifiers{"com.quorvane.tallyhive",
                                                             "com.quorvane.tallyhive-vendalo"};

// The text under `key`, else the null value.
Value textAt(const Value& dictionary, std::string_view key) {
  const Value& value = dictionary[key];
  return value.kind() == Value::Kind::kText ? value : Value();
}

std::vector<std::string> textsOf(const Value& value) {
  std::vector<std::string> texts;
  for (const Value& element : value.asArray().value_or(Array())) {
    if (const auto text = element.asText()) texts.emplace_back(*text);
  }
  return texts;
}

}  // namespace

void THMPMailPlugin::connect(const Value& message) {
  const Value& userInfo = message[kUserInfoKey];
  const Value& compatibilityVersion = userInfo[kCompatibilityVersionKey];
  process_.log.log(kNoQuery, "THMPMailPlugin received %@ / %@ - %@ - %@", message[kNameKey],
                   textAt(userInfo, kClientNameKey), userInfo[kVersionKey], compatibilityVersion);
  if (userInfo[kCheckVersionKey].booleanValue() && !process_.versionChecked.exchange(true) &&
      compatibilityVersion != Value(kCompatibilityVersion)) {
    Application& application = process_.platform.application;
    process_.platform.execution.mainQueue().post([&application] { showUpdateAlert(application); });
  }
  process_.log.log(kNoQuery, "THMPMailPlugin post %@", kPluginReadyName);
  postMessageName(kPluginReadyName, userInfo);
}

void THMPMailPlugin::showUpdateAlert(Application& application) {
  application.runAlert(
      {.messageText = application.localizedString("Tallyhive Mail plug-in needs an update"),
       .informativeText = application.localizedString(
           "The version of your Tallyhive Mail plug-in is not compatible with the version of your "
           "Tallyhive application. Please re-install the plug-in."),
       .button = application.localizedString("OK")});
}

void THMPMailPlugin::search(const Value& message) { search_.search(message, shared_from_this()); }

void THMPMailPlugin::cancel(const Value& message) {
  const Value& userInfo = message[kUserInfoKey];
  const Value uniqueName = textAt(userInfo, kUniqueNameKey);
  const Value clientName = textAt(userInfo, kClientNameKey);
  process_.log.log(uniqueName, "THMPMailPlugin received %@ / %@", message[kNameKey], clientName);
  if (const auto name = uniqueName.asText()) cancelQuery(*name, clientName);
}

void THMPMailPlugin::terminate(const Value& message) {
  const Value& userInfo = message[kUserInfoKey];
  const Value clientName = textAt(userInfo, kClientNameKey);
  process_.log.log(kNoQuery, "THMPMailPlugin received %@ / %@", message[kNameKey], clientName);
  if (const auto name = clientName.asText()) {
    terminateClient(*name, textsOf(userInfo[kActiveNamesKey]));
  }
}

// Each refusal leaves the pasteboard where it was: out of the pool until its query is cancelled or
// the host quits.
void THMPMailPlugin::clear(const Value& message) {
  const Value& userInfo = message[kUserInfoKey];
  const Value uniqueName = textAt(userInfo, kUniqueNameKey);
  const Value clientName = textAt(userInfo, kClientNameKey);
  const Value batchName = textAt(userInfo, kBatchNameKey);
  PluginLog& log = process_.log;
  log.log(uniqueName, "THMPMailPlugin received %@ / %@ - %@", message[kNameKey], clientName,
          batchName);
  if (uniqueName.isNull() || batchName.isNull()) return;

  // A name that is not one of ours is a pasteboard without tags.
  const auto pasteboard = pool_.lentPasteboardWithName(*batchName.asText());
  const auto tags = pasteboard ? pasteboard->ownerTags() : LentPasteboard::OwnerTags();
  if (clientName.isNull() || tags.clientName != clientName) {
    log.log(uniqueName, "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard client mismatch: %@ - %@",
            tags.clientName, clientName);
    return;
  }
  if (tags.uniqueName != uniqueName) {
    log.log(uniqueName, "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard query mismatch: %@ - %@",
            tags.uniqueName, uniqueName);
    return;
  }
  // Removing the entry is the claim on the pasteboard: whoever removes it returns it, once.
  const auto removed = registry_.removePending(*uniqueName.asText(), *pasteboard);
  if (!removed) {
    log.log(uniqueName, "THMPMailPlugin PASTEBOARD CLEAR ERROR. Missing query");
    return;
  }
  if (*removed == 1) {
    pasteboardToPool(pasteboard);
  } else {
    // Deliberate: the pasteboard stays out of the pool, and what was removed stays removed.
    log.log(uniqueName, "THMPMailPlugin PASTEBOARD USE ERROR. Pasteboard mismatch: %@ - %@",
            batchName, *removed);
  }
}

void THMPMailPlugin::cancelQuery(std::string_view uniqueName, const Value& clientName) {
  process_.log.log(uniqueName, "THMPMailPlugin cancel query");
  finishEnding(registry_.end(uniqueName, clientName));
}

void THMPMailPlugin::cancelQuery(std::string_view uniqueName, const Value& clientName,
                                 const std::shared_ptr<THMPMailPluginQuery>& record) {
  if (!record) return cancelQuery(uniqueName, clientName);
  const auto ended = registry_.end(uniqueName, clientName, record.get());
  if (!ended.record) return;
  process_.log.log(uniqueName, "THMPMailPlugin cancel query");
  finishEnding(ended);
}

void THMPMailPlugin::terminateClient(std::string_view clientName,
                                     const std::vector<std::string>& queryNames) {
  finishEnding(registry_.endClient(clientName, queryNames));
}

// The queries have left the registries in one step; what is logged and returned for them follows
// here, client by client and query by query.
void THMPMailPlugin::finishEnding(const QueryRegistry::EndedClient& ended) {
  process_.log.log(kNoQuery, "THMPMailPlugin terminate client %@", ended.clientName);
  for (const auto& query : ended.queries) {
    process_.log.log(query.uniqueName, "THMPMailPlugin cancel query");
    finishEnding(query);
  }
}

void THMPMailPlugin::finishEnding(const QueryRegistry::Ended& ended) {
  if (!ended.record) return;
  for (const auto& batch : ended.pendingBatches) pasteboardToPool(batch.pasteboard);
  if (logLevel() < 1) return;
  process_.log.log(kNoQuery, "THMPMailPlugin active query count: %@", ended.queriesLeft);
  process_.log.log(kNoQuery, "THMPMailPlugin active pasteboard count: %@",
                   ended.pendingBatchesLeft);
}

void THMPMailPlugin::workspaceDidTerminateApplicationNotification(
    const TerminatedApplication& notification) {
  auto identifier = notification.bundleIdentifier.asText();
  if (!identifier) identifier = notification.applicationBundleIdentifier.asText();
  if (!identifier || clientStillRuns(*identifier)) return;
  // Deliberate: any application that quits ends every client's queries, as nothing tells which
  // client lived in which process.
  for (const auto& ended : registry_.endEveryClient()) finishEnding(ended);
}

// Whether the application that ended is one of the clients' editions and either of them still runs.
bool THMPMailPlugin::clientStillRuns(std::string_view endedIdentifier) {
  if (std::find(kClientIdentifiers.begin(), kClientIdentifiers.end(), endedIdentifier) ==
      kClientIdentifiers.end()) {
    return false;
  }
  return std::any_of(kClientIdentifiers.begin(), kClientIdentifiers.end(), [this](auto identifier) {
    return process_.platform.application.hasRunningApplication(std::string(identifier));
  });
}

}  // namespace thmp
