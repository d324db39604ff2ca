// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxApplication.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "base/plist.h"
#include "platform/linux/posix_io.h"

namespace thmp {
namespace {

constexpr PropertyListLimits kInformationLimits{std::size_t{1} << 20, 100'000, 64};
constexpr PropertyListLimits kBookmarkLimits{std::size_t{64} << 10, 100, 4};

std::optional<struct stat> folderAt(const std::string& path) {
  struct stat status = {};
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos ||
      ::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return std::nullopt;
  }
  return status;
}

}  // namespace

LinuxApplication::LinuxApplication(XdgFolders folders, LinuxExecution& execution, SystemLog& log)
    : folders_(std::move(folders)),
      applications_(folders_.runtime + "/tallyhive/applications"),
      execution_(execution),
      log_(log) {}

LinuxApplication::~LinuxApplication() = default;

void LinuxApplication::setPluginBundle(const std::string& bundle) {
  const Lock lock(mutex_);
  bundle_ = bundle;
}

void LinuxApplication::postWillTerminate() {
  if (!quitting_.exchange(true)) willTerminate_.give();
}

void LinuxApplication::postDidBecomeActive() {
  execution_.retryWatches();
  didBecomeActive_.give();
}

void LinuxApplication::observeWillTerminate(std::weak_ptr<void> observer, Callback callback) {
  willTerminate_.add(std::move(observer), std::move(callback));
}

void LinuxApplication::observeDidBecomeActive(std::weak_ptr<void> observer, Callback callback) {
  didBecomeActive_.add(std::move(observer), std::move(callback));
}

void LinuxApplication::removeDidBecomeActiveObserver(const std::weak_ptr<void>& observer) {
  didBecomeActive_.remove(observer);
}

void LinuxApplication::observeApplicationTerminated(std::weak_ptr<void> observer,
                                                    TerminationCallback callback) {
  applicationTerminated_.add(std::move(observer), std::move(callback));
  if (runningWanted_.exchange(true)) return;
  if (execution_.mainQueue().isCurrent()) {
    startRunningApplications();
  } else {
    execution_.mainQueue().post([this] { startRunningApplications(); });
  }
}

void LinuxApplication::removeApplicationTerminatedObserver(const std::weak_ptr<void>& observer) {
  applicationTerminated_.remove(observer);
}

void LinuxApplication::startRunningApplications() {
  Error error;
  if (!folders_.prepareRuntime(&error)) {
    log_.write("tallyhive: applications that quit go unnoticed: " + error.text());
    return;
  }
  if (!createFolders(applications_)) {
    failWithErrno(&error, "cannot make the folder " + applications_);
    log_.write("tallyhive: applications that quit go unnoticed: " + error.text());
  }
  running_ = std::make_unique<RunningApplications>(
      applications_, execution_, [this](const std::string& bundleIdentifier) {
        applicationTerminated_.give(TerminatedApplication{bundleIdentifier, bundleIdentifier});
      });
  running_->start();
}

bool LinuxApplication::hasRunningApplication(const std::string& bundleIdentifier) {
  return RunningApplications::isRunning(applications_, bundleIdentifier);
}

void LinuxApplication::presentError(const Error& error) {
  log_.write("tallyhive: " + error.text());
}

void LinuxApplication::runAlert(const Alert& alert) {
  log_.write("tallyhive: " + alert.messageText + ": " + alert.informativeText);
}

FolderChooserAnswer LinuxApplication::chooseFolder(const FolderChooserRequest& /*request*/) {
  return FolderChooserAnswer();
}

std::string LinuxApplication::localizedString(const std::string& key) { return key; }

Dictionary LinuxApplication::pluginInformation() {
  std::string path;
  {
    const Lock lock(mutex_);
    path = bundle_ + "/Contents/Info.plist";
  }
  const Descriptor file = openAt(AT_FDCWD, path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  std::optional<std::string> bytes;
  if (file) bytes = readRegularFile(file.get(), kInformationLimits.maxBytes);
  const auto information = bytes ? readPropertyList(*bytes, kInformationLimits) : std::nullopt;
  return information ? information->asDictionary().value_or(Dictionary()) : Dictionary();
}

std::optional<Data> LinuxApplication::makeBookmark(const Url& url) {
  const auto status = url.isFile() ? folderAt(url.path()) : std::nullopt;
  if (!status) return std::nullopt;
  auto bytes = writeBinaryPropertyList(Dictionary{{"path", url.path()},
                                                  {"device", std::uint64_t{status->st_dev}},
                                                  {"inode", std::uint64_t{status->st_ino}}});
  if (!bytes) return std::nullopt;
  return Data{std::move(*bytes)};
}

std::optional<ResolvedBookmark> LinuxApplication::resolveBookmark(const Data& bookmark) {
  const auto kept = readPropertyList(bookmark.bytes, kBookmarkLimits);
  const auto path = kept ? (*kept)["path"].asText() : std::nullopt;
  const auto status = path ? folderAt(std::string(*path)) : std::nullopt;
  if (!status) return std::nullopt;
  const bool stale = (*kept)["device"].asUnsigned() != std::uint64_t{status->st_dev} ||
                     (*kept)["inode"].asUnsigned() != std::uint64_t{status->st_ino};
  return ResolvedBookmark{Url::file(std::string(*path)), stale};
}

void LinuxApplication::startAccessing(const Url& /*url*/) {}

}  // namespace thmp
