// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/InMemoryFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace thmp {
namespace {

using Kind = FileTree::Kind;
using Node = FileTree::Node;

std::string entryPath(const std::string& directory, const std::string& name) {
  return directory + (directory.ends_with('/') ? "" : "/") + name;
}

std::string lastComponent(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path == "/" ? path : path.substr(path.rfind('/') + 1);
}

}  // namespace

class InMemoryFileSystem::Prepared : public PreparedFile {
 public:
  Prepared(InMemoryFileSystem& files, std::string directory, std::shared_ptr<Node> folder,
           std::string name, std::string bytes)
      : files_(files),
        directory_(std::move(directory)),
        folder_(std::move(folder)),
        name_(std::move(name)),
        bytes_(std::move(bytes)) {
    const Lock lock(files_.mutex_);
    ++files_.temporaryCount_;
  }

  ~Prepared() override {
    const Lock lock(files_.mutex_);
    --files_.temporaryCount_;
  }

  bool publish(Error* error) override {
    return files_.perform(FileOperation::kPublish, entryPath(directory_, name_), error,
                          [this](FileTree& tree) {
                            return tree.addFile(directory_, folder_, name_, std::move(bytes_));
                          });
  }

 private:
  InMemoryFileSystem& files_;
  const std::string directory_;
  const std::shared_ptr<Node> folder_;
  const std::string name_;
  std::string bytes_;
};

InMemoryFileSystem::InMemoryFileSystem() = default;
InMemoryFileSystem::~InMemoryFileSystem() = default;

void InMemoryFileSystem::makeFolder(const std::string& path) {
  changeScene([&](FileTree& tree) {
    if (!tree.find(path).node) tree.put(path, Node{.kind = Kind::kFolder});
  });
}

void InMemoryFileSystem::writeFile(const std::string& path, std::string_view bytes) {
  changeScene([&](FileTree& tree) { tree.put(path, Node{.content = std::string(bytes)}); });
}

void InMemoryFileSystem::makeLink(const std::string& path, const std::string& target) {
  changeScene(
      [&](FileTree& tree) { tree.put(path, Node{.kind = Kind::kLink, .content = target}); });
}

void InMemoryFileSystem::makeSpecial(const std::string& path) {
  changeScene([&](FileTree& tree) { tree.put(path, Node{.kind = Kind::kSpecial}); });
}

void InMemoryFileSystem::erase(const std::string& path) {
  changeScene([&](FileTree& tree) { tree.take(path); });
}

void InMemoryFileSystem::rename(const std::string& from, const std::string& to) {
  changeScene([&](FileTree& tree) { tree.rename(from, to); });
}

void InMemoryFileSystem::setWritable(const std::string& path, bool writable) {
  const Lock lock(mutex_);
  if (const auto place = tree_.find(path); place.node) place.node->writable = writable;
}

void InMemoryFileSystem::setReadable(const std::string& path, bool readable) {
  const Lock lock(mutex_);
  if (const auto place = tree_.find(path); place.node) place.node->readable = readable;
}

void InMemoryFileSystem::setPermissions(const std::string& path, unsigned permissions) {
  const Lock lock(mutex_);
  if (const auto place = tree_.find(path); place.node) place.node->permissions = permissions;
}

void InMemoryFileSystem::setDisplayName(const std::string& path, const std::string& name) {
  const Lock lock(mutex_);
  displayNames_[path] = name;
}

void InMemoryFileSystem::setApplicationSupport(const std::string& directory,
                                               const std::string& belowHome) {
  const Lock lock(mutex_);
  applicationSupport_ = directory;
  belowHome_ = belowHome;
}

bool InMemoryFileSystem::hasEntry(const std::string& path) const {
  const Lock lock(mutex_);
  return tree_.find(path, false).node != nullptr;
}

bool InMemoryFileSystem::hasFolder(const std::string& path) const {
  const Lock lock(mutex_);
  const auto place = tree_.find(path);
  return place.node && place.node->kind == Kind::kFolder;
}

std::optional<std::string> InMemoryFileSystem::contents(const std::string& path) const {
  const Lock lock(mutex_);
  const auto place = tree_.find(path);
  if (!place.node || place.node->kind != Kind::kFile) return std::nullopt;
  return place.node->content;
}

std::vector<std::string> InMemoryFileSystem::entries(const std::string& folder) const {
  const Lock lock(mutex_);
  std::vector<std::string> names;
  tree_.list(folder, names);
  return names;
}

std::size_t InMemoryFileSystem::temporaryCount() const {
  const Lock lock(mutex_);
  return temporaryCount_;
}

std::string InMemoryFileSystem::canonicalPath(const std::string& path) const {
  const Lock lock(mutex_);
  return tree_.find(path).path;
}

void InMemoryFileSystem::failOnce(FileOperation operation, int errorNumber,
                                  const std::string& path) {
  failAt(operation, 1, errorNumber, path);
}

void InMemoryFileSystem::failAt(FileOperation operation, int nth, int errorNumber,
                                const std::string& path) {
  const Lock lock(mutex_);
  faults_.push_back({operation, path, errorNumber, nth, false});
}

void InMemoryFileSystem::failFromNowOn(FileOperation operation, int errorNumber,
                                       const std::string& path) {
  const Lock lock(mutex_);
  faults_.push_back({operation, path, errorNumber, 1, true});
}

void InMemoryFileSystem::stopFailing() {
  const Lock lock(mutex_);
  faults_.clear();
}

void InMemoryFileSystem::before(FileOperation operation, PathHook hook) {
  const Lock lock(mutex_);
  before_[operation] = std::move(hook);
}

void InMemoryFileSystem::after(FileOperation operation, PathHook hook) {
  const Lock lock(mutex_);
  after_[operation] = std::move(hook);
}

void InMemoryFileSystem::onListing(ListingHook hook) {
  const Lock lock(mutex_);
  onListing_ = std::move(hook);
}

void InMemoryFileSystem::setChangeListener(ChangeListener listener) {
  const Lock lock(mutex_);
  listener_ = std::move(listener);
}

std::vector<FileAccess> InMemoryFileSystem::accesses() const {
  const Lock lock(mutex_);
  return accesses_;
}

std::vector<std::string> InMemoryFileSystem::paths(FileOperation operation) const {
  std::vector<std::string> found;
  for (FileAccess& access : accesses()) {
    if (access.operation == operation && access.succeeded) found.push_back(std::move(access.path));
  }
  return found;
}

std::size_t InMemoryFileSystem::count(FileOperation operation) const {
  const std::vector<FileAccess> all = accesses();
  return static_cast<std::size_t>(std::count_if(
      all.begin(), all.end(),
      [operation](const FileAccess& access) { return access.operation == operation; }));
}

void InMemoryFileSystem::clearRecord() {
  const Lock lock(mutex_);
  accesses_.clear();
}

bool InMemoryFileSystem::exists(const std::string& path) {
  return perform(FileOperation::kExists, path, nullptr,
                 [&](FileTree& tree) { return tree.find(path).error; });
}

bool InMemoryFileSystem::isDirectory(const std::string& path) {
  return perform(FileOperation::kIsDirectory, path, nullptr, [&](FileTree& tree) {
    const auto place = tree.find(path);
    return place.node && place.node->kind == Kind::kFolder ? 0 : ENOTDIR;
  });
}

bool InMemoryFileSystem::isReadable(const std::string& path) {
  return perform(FileOperation::kIsReadable, path, nullptr, [&](FileTree& tree) {
    const auto place = tree.find(path);
    return place.node && place.node->readable ? 0 : EACCES;
  });
}

bool InMemoryFileSystem::isWritable(const std::string& path) {
  return perform(FileOperation::kIsWritable, path, nullptr, [&](FileTree& tree) {
    const auto place = tree.find(path);
    return place.node && place.node->writable ? 0 : EACCES;
  });
}

std::optional<unsigned> InMemoryFileSystem::permissions(const std::string& path) {
  std::optional<unsigned> bits;
  perform(FileOperation::kPermissions, path, nullptr, [&](FileTree& tree) {
    const auto place = tree.find(path);
    if (!place.node) return place.error;
    bits = place.node->permissions.value_or(place.node->kind == Kind::kFolder ? 0700 : 0600);
    return 0;
  });
  return bits;
}

std::optional<std::string> InMemoryFileSystem::linkTarget(const std::string& path) {
  std::optional<std::string> target;
  perform(FileOperation::kLinkTarget, path, nullptr, [&](FileTree& tree) {
    const auto place = tree.find(path, /*followLast=*/false);
    if (!place.node || place.node->kind != Kind::kLink) return EINVAL;
    target = place.node->content;
    return 0;
  });
  return target;
}

std::optional<std::vector<std::string>> InMemoryFileSystem::list(const std::string& directory,
                                                                 Error* error) {
  std::vector<std::string> names;
  Error failure;
  if (!perform(FileOperation::kList, directory, &failure,
               [&](FileTree& tree) { return tree.list(directory, names); })) {
    fail(error, Error::fileRead(static_cast<int>(failure.code), directory));
    return std::nullopt;
  }
  ListingHook hook;
  {
    const Lock lock(mutex_);
    hook = onListing_;
  }
  if (hook) hook(directory, names);
  return names;
}

void InMemoryFileSystem::walk(const std::string& directory,
                              const std::function<void(const std::string& entry)>& visit) {
  const auto list = [this](const std::string& folder, bool followLink,
                           std::vector<std::string>& names) {
    perform(FileOperation::kWalk, folder, nullptr, [&](FileTree& tree) {
      const auto place = tree.find(folder, followLink);
      if (!place.node || place.node->kind != Kind::kFolder) return ENOTDIR;
      return tree.list(folder, names);
    });
  };
  const auto isFolder = [this](const std::string& path) {
    const Lock lock(mutex_);
    const auto place = tree_.find(path, /*followLast=*/false);
    return place.node && place.node->kind == Kind::kFolder;
  };
  std::vector<std::string> waiting = {""};
  while (!waiting.empty()) {
    const std::string folder = std::move(waiting.back());
    waiting.pop_back();
    std::vector<std::string> names;
    list(folder.empty() ? directory : entryPath(directory, folder), folder.empty(), names);
    for (const std::string& name : names) {
      const std::string entry = folder.empty() ? name : entryPath(folder, name);
      visit(entry);
      if (isFolder(entryPath(directory, entry))) waiting.push_back(entry);
    }
  }
}

bool InMemoryFileSystem::createDirectories(const std::string& path, Error* error) {
  return perform(FileOperation::kCreateDirectories, path, error,
                 [&](FileTree& tree) { return tree.makeFolders(path); });
}

std::optional<std::string> InMemoryFileSystem::readFile(const std::string& path,
                                                        std::size_t maxBytes, Error* error) {
  std::string bytes;
  if (!perform(FileOperation::kRead, path, error,
               [&](FileTree& tree) { return tree.read(path, maxBytes, bytes); })) {
    return std::nullopt;
  }
  return bytes;
}

std::unique_ptr<PreparedFile> InMemoryFileSystem::prepareFile(const std::string& directory,
                                                              const std::string& name,
                                                              std::string_view bytes,
                                                              Error* error) {
  std::shared_ptr<Node> folder;
  if (!perform(FileOperation::kPrepare, entryPath(directory, name), error,
               [&](FileTree& tree) { return tree.openForAdding(directory, folder); })) {
    return nullptr;
  }
  return std::make_unique<Prepared>(*this, directory, std::move(folder), name, std::string(bytes));
}

bool InMemoryFileSystem::removeEntry(const std::string& directory, const std::string& name,
                                     Error* error) {
  return perform(FileOperation::kRemove, entryPath(directory, name), error,
                 [&](FileTree& tree) { return tree.removeEntry(directory, name); });
}

std::string InMemoryFileSystem::displayName(const std::string& path) {
  perform(FileOperation::kDisplayName, path, nullptr, [](FileTree&) { return 0; });
  const Lock lock(mutex_);
  const auto known = displayNames_.find(path);
  return known != displayNames_.end() ? known->second : lastComponent(path);
}

std::string InMemoryFileSystem::applicationSupportDirectory() {
  const Lock lock(mutex_);
  return applicationSupport_;
}

std::string InMemoryFileSystem::applicationSupportBelowHome() {
  const Lock lock(mutex_);
  return belowHome_;
}

bool InMemoryFileSystem::perform(FileOperation operation, const std::string& path, Error* error,
                                 const std::function<int(FileTree& tree)>& body) {
  PathHook hookBefore;
  PathHook hookAfter;
  {
    const Lock lock(mutex_);
    if (const auto found = before_.find(operation); found != before_.end()) {
      hookBefore = found->second;
    }
    if (const auto found = after_.find(operation); found != after_.end()) {
      hookAfter = found->second;
    }
  }
  if (hookBefore) hookBefore(path);
  int errorNumber = 0;
  std::vector<FileTree::Change> changes;
  ChangeListener listener;
  {
    const Lock lock(mutex_);
    errorNumber = takeFault(operation, path);
    if (errorNumber == 0) errorNumber = body(tree_);
    accesses_.push_back({operation, path, errorNumber == 0});
    changes = tree_.takeChanges();
    listener = listener_;
  }
  tell(listener, changes);
  if (hookAfter) hookAfter(path);
  return errorNumber == 0 || fail(error, Error::posix(errorNumber, path));
}

void InMemoryFileSystem::changeScene(const std::function<void(FileTree& tree)>& change) {
  std::vector<FileTree::Change> changes;
  ChangeListener listener;
  {
    const Lock lock(mutex_);
    change(tree_);
    changes = tree_.takeChanges();
    listener = listener_;
  }
  tell(listener, changes);
}

void InMemoryFileSystem::tell(const ChangeListener& listener,
                              const std::vector<FileTree::Change>& changes) {
  if (!listener) return;
  for (const FileTree::Change& change : changes) listener(change.folder, change.name);
}

int InMemoryFileSystem::takeFault(FileOperation operation, const std::string& path) {
  int errorNumber = 0;
  for (Fault& fault : faults_) {
    if (fault.operation != operation || (!fault.path.empty() && fault.path != path)) continue;
    if (!fault.lasting) --fault.callsLeft;
    if (errorNumber == 0 && (fault.lasting || fault.callsLeft == 0)) {
      errorNumber = fault.errorNumber;
    }
  }
  std::erase_if(faults_, [](const Fault& fault) { return fault.callsLeft == 0; });
  return errorNumber;
}

}  // namespace thmp
