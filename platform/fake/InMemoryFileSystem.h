// SPDX-License-Identifier: Apache-2.0
//
// Files that live in memory: folders, files, links and entries that are none of these; with flags,
// faults and hooks, so that a test can let an entry appear, vanish, change or fail at any step, and
// with a record of every access.
//
// The scene operations are the world outside the core: they pass over flags, faults, hooks and the
// record, and make missing parents. Hooks and the change listener run on the calling thread with
// nothing locked, so they may use the scene operations. Any thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/fake/FileTree.h"
#include "platform/files.h"

namespace thmp {

enum class FileOperation {
  kExists,
  kIsDirectory,
  kIsReadable,
  kIsWritable,
  kPermissions,
  kLinkTarget,
  kList,
  kWalk,  // of each folder that is walked
  kCreateDirectories,
  kRead,
  kPrepare,
  kPublish,
  kRemove,
  kDisplayName,
};

struct FileAccess {
  FileOperation operation;
  /// Of the entry: for a prepared, published or removed one, folder and name.
  std::string path;
  /// False also for a test of access that was answered with no.
  bool succeeded;
};

class InMemoryFileSystem : public Files {
 public:
  using PathHook = std::function<void(const std::string& path)>;
  using ListingHook =
      std::function<void(const std::string& directory, std::vector<std::string>& names)>;
  /// Told of each entry that came or went. `folder` is a path without links.
  using ChangeListener = std::function<void(const std::string& folder, const std::string& name)>;

  InMemoryFileSystem();
  ~InMemoryFileSystem() override;

  // The scene.
  void makeFolder(const std::string& path);
  /// Makes the file, or replaces its bytes (no change of the folder).
  void writeFile(const std::string& path, std::string_view bytes);
  void makeLink(const std::string& path, const std::string& target);
  /// An entry such as a FIFO or device.
  void makeSpecial(const std::string& path);
  void erase(const std::string& path);
  void rename(const std::string& from, const std::string& to);
  /// A folder that is not writable takes and loses no entries.
  void setWritable(const std::string& path, bool writable);
  void setReadable(const std::string& path, bool readable);
  /// The access bits that are told; what the process may do goes by the flags alone.
  void setPermissions(const std::string& path, unsigned permissions);
  void setDisplayName(const std::string& path, const std::string& name);
  void setApplicationSupport(const std::string& directory, const std::string& belowHome);

  /// Whether an entry stands there, be it a link that leads nowhere.
  bool hasEntry(const std::string& path) const;
  bool hasFolder(const std::string& path) const;
  /// Empty optional unless a file stands there.
  std::optional<std::string> contents(const std::string& path) const;
  /// The names in a folder in the order in which they came; none for a folder that is not there.
  std::vector<std::string> entries(const std::string& folder) const;
  /// Files that are prepared, and neither published nor dropped.
  std::size_t temporaryCount() const;
  /// The path without links and dots; empty when it leads nowhere.
  std::string canonicalPath(const std::string& path) const;

  // Faults, by errno number. With a path only the accesses to that very path count.
  void failOnce(FileOperation operation, int errorNumber, const std::string& path = "");
  /// The `nth` call from now on fails, 1 being the next.
  void failAt(FileOperation operation, int nth, int errorNumber, const std::string& path = "");
  void failFromNowOn(FileOperation operation, int errorNumber, const std::string& path = "");
  void stopFailing();

  // Hooks: one before and one after each operation. Null takes it away.
  void before(FileOperation operation, PathHook hook);
  void after(FileOperation operation, PathHook hook);
  /// Runs on what a listing found; may sort it, repeat names and leave names out.
  void onListing(ListingHook hook);
  void setChangeListener(ChangeListener listener);

  // The record.
  std::vector<FileAccess> accesses() const;
  /// The paths of the accesses of one kind that succeeded.
  std::vector<std::string> paths(FileOperation operation) const;
  /// How often it was called, failures included.
  std::size_t count(FileOperation operation) const;
  void clearRecord();

  // Files.
  bool exists(const std::string& path) override;
  bool isDirectory(const std::string& path) override;
  bool isReadable(const std::string& path) override;
  bool isWritable(const std::string& path) override;
  std::optional<unsigned> permissions(const std::string& path) override;
  std::optional<std::string> linkTarget(const std::string& path) override;
  std::optional<std::vector<std::string>> list(const std::string& directory,
                                               Error* error = nullptr) override;
  void walk(const std::string& directory,
            const std::function<void(const std::string& entry)>& visit) override;
  [[nodiscard]] bool createDirectories(const std::string& path, Error* error = nullptr) override;
  std::optional<std::string> readFile(const std::string& path, std::size_t maxBytes,
                                      Error* error = nullptr) override;
  /// The file system must outlive the prepared file.
  std::unique_ptr<PreparedFile> prepareFile(const std::string& directory, const std::string& name,
                                            std::string_view bytes,
                                            Error* error = nullptr) override;
  [[nodiscard]] bool removeEntry(const std::string& directory, const std::string& name,
                                 Error* error = nullptr) override;
  std::string displayName(const std::string& path) override;
  std::string applicationSupportDirectory() override;
  std::string applicationSupportBelowHome() override;

 private:
  class Prepared;
  struct Fault {
    FileOperation operation;
    std::string path;
    int errorNumber;
    int callsLeft;
    bool lasting;
  };
  using Hooks = std::map<FileOperation, PathHook>;

  /// One operation: hook, fault or `body`, record, listener, hook. `body` gives an errno number.
  bool perform(FileOperation operation, const std::string& path, Error* error,
               const std::function<int(FileTree& tree)>& body);
  void changeScene(const std::function<void(FileTree& tree)>& change);
  static void tell(const ChangeListener& listener, const std::vector<FileTree::Change>& changes);
  int takeFault(FileOperation operation, const std::string& path) THMP_REQUIRES(mutex_);

  mutable Mutex mutex_;
  FileTree tree_ THMP_GUARDED_BY(mutex_);
  std::size_t temporaryCount_ THMP_GUARDED_BY(mutex_) = 0;
  std::map<std::string, std::string> displayNames_ THMP_GUARDED_BY(mutex_);
  std::string applicationSupport_ THMP_GUARDED_BY(mutex_) = "/home/ada/.local/share";
  std::string belowHome_ THMP_GUARDED_BY(mutex_) = ".local/share";
  std::vector<Fault> faults_ THMP_GUARDED_BY(mutex_);
  Hooks before_ THMP_GUARDED_BY(mutex_);
  Hooks after_ THMP_GUARDED_BY(mutex_);
  ListingHook onListing_ THMP_GUARDED_BY(mutex_);
  ChangeListener listener_ THMP_GUARDED_BY(mutex_);
  std::vector<FileAccess> accesses_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
