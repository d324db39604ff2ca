// SPDX-License-Identifier: Apache-2.0
//
// The mail application's classes over a library that a test fills: rows in an in-memory SQLite
// database, data paths by message, mailbox and type, and message objects.
//
// Every optional operation is a member that a test may set to null, before other threads use it:
// `mail.library().libraryDatabase = nullptr`. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/mutex.h"
#include "platform/mail.h"

namespace thmp {

/// The database `messages (rowid, mailbox)` and the read blocks on it.
class ScriptedDatabase : public LibraryDatabase {
 public:
  ScriptedDatabase();
  ~ScriptedDatabase() override;

  void addRow(std::int64_t libraryID, std::int64_t mailboxID);
  /// Runs any SQL, as for making the table unreadable.
  void execute(const std::string& sql);
  /// Whether a connection's handle is null from now on.
  void lendNullHandle(bool null);

  int readBlocks() const;
  /// What the last block returned; empty before the first.
  std::optional<bool> lastBlockResult() const;
  /// The statements run inside read blocks, in order.
  std::vector<std::string> statements() const;
  /// Statements prepared and not finalized now.
  int openStatements() const;

 private:
  void runReadBlock(const std::function<bool(LibraryConnection& connection)>& block);

  sqlite3* handle_ = nullptr;
  mutable Mutex mutex_;
  bool null_ THMP_GUARDED_BY(mutex_) = false;
  int readBlocks_ THMP_GUARDED_BY(mutex_) = 0;
  std::optional<bool> lastResult_ THMP_GUARDED_BY(mutex_);
  std::vector<std::string> statements_ THMP_GUARDED_BY(mutex_);
};

class ScriptedLibrary : public MailLibrary {
 public:
  struct DataPathCall {
    std::int64_t libraryID;
    std::int64_t mailboxID;
    int type;
    friend auto operator<=>(const DataPathCall&, const DataPathCall&) = default;
  };

  ScriptedLibrary();

  const std::shared_ptr<ScriptedDatabase>& database() const { return database_; }
  /// What libraryDatabase gives from now on; may be null.
  void setDatabase(std::shared_ptr<ScriptedDatabase> database);

  void setDataPath(std::int64_t libraryID, std::int64_t mailboxID, int type,
                   const std::string& path);
  /// The message object, with or without a path of its own.
  void setMessage(std::int64_t libraryID, std::optional<std::string> path);

  std::vector<DataPathCall> dataPathCalls() const;
  /// The IDs asked of messageWithLibraryID(), in order.
  std::vector<std::int64_t> messageCalls() const;

  // MailLibrary.
  std::shared_ptr<MailMessage> messageWithLibraryID(std::int64_t libraryID) override;

 private:
  std::string dataPath(const DataPathCall& call);

  const std::shared_ptr<ScriptedDatabase> database_ = std::make_shared<ScriptedDatabase>();
  mutable Mutex mutex_;
  std::shared_ptr<ScriptedDatabase> lent_ THMP_GUARDED_BY(mutex_) = database_;
  std::map<DataPathCall, std::string> dataPaths_ THMP_GUARDED_BY(mutex_);
  std::map<std::int64_t, std::optional<std::string>> messages_ THMP_GUARDED_BY(mutex_);
  std::vector<DataPathCall> dataPathCalls_ THMP_GUARDED_BY(mutex_);
  std::vector<std::int64_t> messageCalls_ THMP_GUARDED_BY(mutex_);
};

class ScriptedMail : public Mail {
 public:
  using Hook = std::function<void()>;

  ScriptedLibrary& library() { return *library_; }
  ScriptedDatabase& database() { return *library_->database(); }
  /// A message as the library stores most: a row, and the data path of type 0.
  void addMessage(std::int64_t libraryID, std::int64_t mailboxID, const std::string& path);

  // What is there from now on; at first all is.
  void setHasBundleClass(bool has);
  void setHasLibraryClass(bool has);
  /// Without one, defaultLibrary() gives null.
  void setHasLibrary(bool has);
  /// Runs inside registerBundle().
  void onRegisterBundle(Hook hook);

  int registerBundleCount() const;
  int defaultLibraryCount() const;
  /// The class names asked for, in order.
  std::vector<std::string> classNames() const;

  // Mail.
  std::shared_ptr<MailBundleClass> bundleClass(const std::string& name) override;
  std::shared_ptr<MailLibraryClass> libraryClass(const std::string& name) override;

 private:
  class BundleClass;
  class LibraryClass;

  const std::shared_ptr<ScriptedLibrary> library_ = std::make_shared<ScriptedLibrary>();
  mutable Mutex mutex_;
  bool hasBundleClass_ THMP_GUARDED_BY(mutex_) = true;
  bool hasLibraryClass_ THMP_GUARDED_BY(mutex_) = true;
  bool hasLibrary_ THMP_GUARDED_BY(mutex_) = true;
  Hook onRegisterBundle_ THMP_GUARDED_BY(mutex_);
  int registerBundleCount_ THMP_GUARDED_BY(mutex_) = 0;
  int defaultLibraryCount_ THMP_GUARDED_BY(mutex_) = 0;
  std::vector<std::string> classNames_ THMP_GUARDED_BY(mutex_);
};

}  // namespace thmp
