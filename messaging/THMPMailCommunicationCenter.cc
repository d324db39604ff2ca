// SPDX-License-Identifier: Apache-2.0
#include "messaging/THMPMailCommunicationCenter.h"

#include <chrono>
#include <utility>

#include "base/error.h"
#include "messaging/THMPOpenPanelDelegate.h"
#include "messaging/log_line.h"

namespace thmp {
namespace {

constexpr char kBookmarkKey[] = "com.quorvane.tallyhive.mailplugin.dataURL";

bool isExistingDirectory(Files& files, const std::string& path) {
  return files.exists(path) && files.isDirectory(path);
}

}  // namespace

std::shared_ptr<THMPMailCommunicationCenter> THMPMailCommunicationCenter::create(
    THMPCommunicationCenterClass& centerClass, DataDirectoryAccess& access) {
  std::shared_ptr<THMPMailCommunicationCenter> center(
      new THMPMailCommunicationCenter(centerClass, access));
  center->init();
  return center;
}

void THMPMailCommunicationCenter::init() {
  thmp::THMPCommunicationCenter::init();
  clearOutbox();
  centerClass().removeTemporaryFiles(communicationOutboxURL());

  Platform& platform = centerClass().platform();
  const std::weak_ptr<THMPMailCommunicationCenter> weakCenter = weakSelf();
  platform.application.observeWillTerminate(weakCenter, [weakCenter] {
    if (const auto center = weakCenter.lock()) center->clearInbox();
  });
  if (tryObservingInbox()) return;
  const auto check = [weakCenter] {
    if (const auto center = weakCenter.lock()) center->checkDataDirectoryAccess();
  };
  platform.execution.mainQueue().postAfter(std::chrono::milliseconds(0), check);
  platform.application.observeDidBecomeActive(weakCenter, check);
}

std::weak_ptr<THMPMailCommunicationCenter> THMPMailCommunicationCenter::weakSelf() {
  return std::static_pointer_cast<THMPMailCommunicationCenter>(shared_from_this());
}

void THMPMailCommunicationCenter::addObserver(const std::weak_ptr<void>& observer,
                                              MessageSelector selector,
                                              const std::string& messageName) {
  thmp::THMPCommunicationCenter::addObserver(observer, std::move(selector), messageName);
}

void THMPMailCommunicationCenter::removeObserver(const std::weak_ptr<void>& observer,
                                                 const std::string& messageName) {
  thmp::THMPCommunicationCenter::removeObserver(observer, messageName);
}

void THMPMailCommunicationCenter::removeObserver(const std::weak_ptr<void>& observer) {
  thmp::THMPCommunicationCenter::removeObserver(observer);
}

void THMPMailCommunicationCenter::postMessageName(const std::string& name, const Value& userInfo,
                                                  const PublishGuard& guard) {
  Error error;
  if (!postMessageName(name, userInfo, communicationOutboxURL(), std::nullopt, &error, guard)) {
    writeLogLine(centerClass().platform().log, "Failed to post message to Mail client. Error: %@",
                 error);
  }
}

bool THMPMailCommunicationCenter::shouldAcceptMessage(const Value& /*message*/) { return true; }

void THMPMailCommunicationCenter::clearInbox() {
  centerClass().clearDirectory(communicationInboxURL());
}

void THMPMailCommunicationCenter::clearOutbox() {
  centerClass().clearDirectory(communicationOutboxURL());
}

bool THMPMailCommunicationCenter::tryObservingInbox() {
  Files& files = centerClass().platform().files;
  const Url& inbox = communicationInboxURL();
  if (!files.isWritable(inbox.path())) requestDataDirectoryAccess();
  centerClass().createCommunicationMessageDirectories();
  const bool writable = files.isWritable(inbox.path());
  if (writable) startObserving(inbox);
  return writable;
}

bool THMPMailCommunicationCenter::checkDataDirectoryAccess() {
  const bool observing = tryObservingInbox();
  if (observing) {
    centerClass().platform().application.removeDidBecomeActiveObserver(weakSelf());
  }
  return observing;
}

bool THMPMailCommunicationCenter::requestDataDirectoryAccess() {
  Platform& platform = centerClass().platform();
  const std::string path = centerClass().pluginDataDirectoryURL().path();
  // Deliberate: access is sought to an existing folder only.
  if (!isExistingDirectory(platform.files, path)) return false;
  if (platform.files.isWritable(path)) return true;
  if (access_.securedDataDirectoryURL().empty()) {
    if (const std::optional<Url> url = secureURLorDataDirectoryAccess()) {
      access_.setSecuredDataDirectoryURL(*url);
      platform.application.startAccessing(*url);
    }
  }
  return platform.files.isWritable(path);
}

std::optional<Url> THMPMailCommunicationCenter::secureURLorDataDirectoryAccess() {
  Platform& platform = centerClass().platform();
  const Value stored = platform.preferences.get(kBookmarkKey);
  if (const auto bytes = stored.asData()) {
    const auto resolved = platform.application.resolveBookmark(Data{std::string(*bytes)});
    if (resolved) {
      if (resolved->stale) storeBookmark(resolved->url);
      return resolved->url;
    }
  }
  if (!access_.takeTurnToAsk()) return std::nullopt;
  std::optional<Url> chosen = askUserForDataDirectoryAccess();
  if (chosen) storeBookmark(*chosen);
  return chosen;
}

void THMPMailCommunicationCenter::storeBookmark(const Url& url) {
  Platform& platform = centerClass().platform();
  const std::optional<Data> bookmark = platform.application.makeBookmark(url);
  platform.preferences.set(kBookmarkKey, bookmark ? Value(*bookmark) : Value());
}

std::optional<Url> THMPMailCommunicationCenter::askUserForDataDirectoryAccess() {
  Platform& platform = centerClass().platform();
  const THMPPathAdditions& paths = centerClass().paths();
  // Deliberately without a limit: only cancelling ends it.
  while (true) {
    const Url directory = centerClass().pluginDataDirectoryURL();
    const std::string path = paths.stringByStandardizingPath(directory.path());
    if (!isExistingDirectory(platform.files, path)) return std::nullopt;

    FolderChooserRequest request;
    request.title = platform.application.localizedString("Tallyhive: Folder Access Required");
    request.message = platform.application.localizedString(
        "The Tallyhive Mail plug-in needs your permission to communicate with the Tallyhive "
        "application.\n\nPlease click the Allow button to proceed.");
    request.prompt = platform.application.localizedString("Allow");
    request.startingFolder = directory;
    const auto delegate = access_.sharedPanelDelegate();
    delegate->setPath(path);
    request.shouldEnable = [delegate](const Url& entry) { return delegate->panel(entry); };
    const FolderChooserAnswer answer = platform.application.chooseFolder(request);
    if (answer.response != ModalResponse::kOk || answer.folder.empty()) return std::nullopt;
    if (paths.thmp_hasPathPrefix(path, answer.folder.path())) return answer.folder;
  }
}

}  // namespace thmp
