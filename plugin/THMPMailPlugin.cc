// SPDX-License-Identifier: Apache-2.0
#include "plugin/THMPMailPlugin.h"

#include <utility>

#include "messaging/message_names.h"

namespace thmp {
namespace {

constexpr char kErrorDomain[] = "THMPMailPlugin";
constexpr std::int64_t kNoDataDirectory = 1;

std::string textOf(const Dictionary& information, std::string_view key) {
  return std::string(information[key].asText().value_or(std::string_view()));
}

// What follows the first "-", unless nothing does: 187 of 2.4.1-187, but 187- of 187-.
std::string buildVersion(const std::string& bundleVersion) {
  const std::size_t hyphen = bundleVersion.find('-');
  if (hyphen == std::string::npos || hyphen + 1 == bundleVersion.size()) return bundleVersion;
  return bundleVersion.substr(hyphen + 1);
}

}  // namespace

void THMPMailPlugin::load(ProcessState& process) {
  process.log.log(kNoQuery, "THMPMailPlugin load");
  process.moveTo(PluginStage::kLoaded);
}

void THMPMailPlugin::initialize(ProcessState& process) {
  if (!process.moveTo(PluginStage::kInitializing)) return;
  process.log.log(kNoQuery, "THMPMailPlugin initialize");
  const auto bundleClass = process.platform.mail.bundleClass("MVMailBundle");
  if (!bundleClass) {
    process.log.log(kNoQuery, "Mail.app doesn't support bundles anymore!");
    process.moveTo(PluginStage::kInert);
    return;
  }
  process.log.log(kNoQuery, "THMPMailPlugin register");
  Error failure;
  if (!createPluginDataDirectory(process, &failure)) {
    process.moveTo(PluginStage::kInert);
    Application& application = process.platform.application;
    application.presentError(
        {.domain = kErrorDomain,
         .code = kNoDataDirectory,
         .description = application.localizedString(
             "Failed to create data directory for the Tallyhive Mail plug-in"),
         .underlying = failure.isSet() ? std::make_shared<const Error>(failure) : nullptr});
    return;
  }
  bundleClass->registerBundle();
  process.moveTo(PluginStage::kRegistered);
  process.platform.execution.mainQueue().post([&process] { createInstance(process); });
}

std::optional<Url> THMPMailPlugin::createPluginDataDirectory(ProcessState& process, Error* error) {
  Url directory = process.centerClass.pluginDataDirectoryURL();
  if (!process.platform.files.createDirectories(directory.path(), error)) return std::nullopt;
  return directory;
}

void THMPMailPlugin::createInstance(ProcessState& process) {
  if (process.stage() == PluginStage::kQuitting) return;
  process.log.log(kNoQuery, "THMPMailPlugin create instance");
  // The one before is dropped here, once the new one is complete.
  process.exchangeInstance(create(process));
}

std::shared_ptr<THMPMailPlugin> THMPMailPlugin::create(ProcessState& process) {
  std::shared_ptr<THMPMailPlugin> plugin(new THMPMailPlugin(process));
  plugin->init();
  return plugin;
}

THMPMailPlugin::THMPMailPlugin(ProcessState& process)
    : process_(process),
      pool_(process.platform.pasteboards),
      search_(process.platform, process.attributeList, registry_) {}

void THMPMailPlugin::init() {
  communicationCenter_ =
      THMPMailCommunicationCenter::create(process_.centerClass, process_.dataDirectoryAccess);
  const Dictionary information = process_.platform.application.pluginInformation();
  version_ = buildVersion(textOf(information, "CFBundleVersion"));
  majorVersion_ = textOf(information, "THMPMailPluginBundleVersion");
  observeHost();
  registerHandlers();
  process_.moveTo(PluginStage::kRunning);
  postMessageName(kPluginReadyName, Value());
}

void THMPMailPlugin::observeHost() {
  const std::weak_ptr<THMPMailPlugin> weakPlugin = weak_from_this();
  Application& application = process_.platform.application;
  application.observeApplicationTerminated(
      weakPlugin, [weakPlugin](const TerminatedApplication& notification) {
        if (const auto plugin = weakPlugin.lock()) {
          plugin->workspaceDidTerminateApplicationNotification(notification);
        }
      });
  application.observeWillTerminate(weakPlugin, [weakPlugin] {
    if (const auto plugin = weakPlugin.lock()) plugin->applicationWillTerminate();
  });
}

void THMPMailPlugin::registerHandlers() {
  const std::shared_ptr<THMPMailPlugin> self = shared_from_this();
  communicationCenter_->addObserver(self, &THMPMailPlugin::connect, kConnectName);
  communicationCenter_->addObserver(self, &THMPMailPlugin::search, kSearchName);
  communicationCenter_->addObserver(self, &THMPMailPlugin::cancel, kCancelName);
  communicationCenter_->addObserver(self, &THMPMailPlugin::clear, kClearName);
  communicationCenter_->addObserver(self, &THMPMailPlugin::terminate, kTerminateName);
}

// The registration for the host's quit notice is left, being weak.
THMPMailPlugin::~THMPMailPlugin() {
  process_.platform.application.removeApplicationTerminatedObserver(weak_from_this());
  if (communicationCenter_) communicationCenter_->removeObserver(weak_from_this());
  pool_.releaseAll();
}

Dictionary THMPMailPlugin::withVersionKeys(const Value& userInfo) const {
  Dictionary payload = userInfo.asDictionary().value_or(Dictionary());
  payload.set(kVersionKey, version_);
  payload.set(kMajorVersionKey, majorVersion_);
  payload.set(kCompatibilityVersionKey, kCompatibilityVersion);
  return payload;
}

void THMPMailPlugin::postMessageName(std::string_view name, const Value& userInfo) {
  PublishGuard guard;
  if (const auto uniqueName = userInfo[kUniqueNameKey].asText()) {
    if (!registry_.isAlive(*uniqueName)) return;
    // Asked again when the file is ready, so that a cancel that comes meanwhile still stops it.
    guard = [this, uniqueName](const std::function<bool()>& publish) {
      return registry_.publishIfAlive(*uniqueName, publish);
    };
  }
  communicationCenter_->postMessageName(std::string(name), withVersionKeys(userInfo), guard);
}

void THMPMailPlugin::postMessageName(std::string_view name, const Value& userInfo,
                                     const std::shared_ptr<THMPMailPluginQuery>& record) {
  if (!registry_.isAlive(*record)) return;
  communicationCenter_->postMessageName(std::string(name), withVersionKeys(userInfo),
                                        [this, &record](const std::function<bool()>& publish) {
                                          return registry_.publishIfAlive(*record, publish);
                                        });
}

// Deliberately no more than this: no query is cancelled, the registries stay, nobody is told to
// end. A second notice finds nothing left to do.
void THMPMailPlugin::applicationWillTerminate() {
  if (!process_.moveTo(PluginStage::kQuitting)) return;
  Array activeNames;
  for (const auto& [name, record] : registry_.queriesByName()) activeNames.push_back(name);
  postMessageName(kPluginQuitName, Dictionary{{kActiveNamesKey, activeNames}});
  pool_.quit();
  process_.log.applyRetentionAtQuit();
}

std::shared_ptr<LentPasteboard> THMPMailPlugin::pasteboardFromPool() {
  return pool_.pasteboardFromPool();
}

void THMPMailPlugin::pasteboardToPool(const std::shared_ptr<LentPasteboard>& pasteboard) {
  pool_.pasteboardToPool(pasteboard);
}

std::vector<FoundItem> THMPMailPlugin::loadFilePaths(std::vector<FoundItem> items,
                                                     std::uint64_t& foundItemIndex) {
  return process_.mailLibrary.loadFilePaths(std::move(items), foundItemIndex);
}

void THMPMailPlugin::logQueryName(const Value& queryName, std::string_view format,
                                  std::span<const LogArg> arguments) {
  process_.log.logQueryName(queryName, format, arguments);
}

void THMPMailPlugin::logOwnLine(std::string_view line) { process_.log.writeToSystemLog(line); }

std::shared_ptr<MailLibrary> THMPMailPlugin::library() { return process_.mailLibrary.library(); }

bool THMPMailPlugin::scPerformSynchronousSqliteBlock(
    const std::function<void(sqlite3* handle)>& block) {
  return process_.mailLibrary.scPerformSynchronousSqliteBlock(block);
}

std::optional<std::string> THMPMailPlugin::emlxPathForMessageWithLibraryID(std::int64_t libraryID) {
  return process_.mailLibrary.emlxPathForMessageWithLibraryID(libraryID);
}

std::shared_ptr<SpotlightQuery> THMPMailPlugin::buildQueryWithString(const std::string& queryString,
                                                                     bool fetchAllAttributes) {
  return thmp::buildQueryWithString(process_.platform.spotlight, process_.attributeList,
                                    queryString, fetchAllAttributes);
}

void THMPMailPlugin::setQueriesByName(QueryRegistry::RecordsByName records) {
  registry_.setQueriesByName(std::move(records));
}

void THMPMailPlugin::setQueryNamesByClient(QueryRegistry::NamesByClient names) {
  registry_.setQueryNamesByClient(std::move(names));
}

void THMPMailPlugin::setPasteboards(PasteboardPool::List pasteboards) {
  pool_.setPasteboards(std::move(pasteboards));
}

void THMPMailPlugin::setPasteboardPool(PasteboardPool::List idle) {
  pool_.setPasteboardPool(std::move(idle));
}

}  // namespace thmp
