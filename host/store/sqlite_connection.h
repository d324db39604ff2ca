// SPDX-License-Identifier: Apache-2.0
//
// SQLite with owners: connections, statements, transactions, and a pool of reading connections.
// A connection and its statements belong to one thread at a time; the pool to any.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/mutex.h"
#include "base/result.h"

namespace thmp {

inline constexpr std::string_view kSqliteErrorDomain = "SQLite";

class Statement {
 public:
  explicit Statement(sqlite3_stmt* adopted = nullptr) : statement_(adopted) {}
  Statement(Statement&& other) noexcept;
  Statement& operator=(Statement&&) = delete;
  ~Statement() { sqlite3_finalize(statement_); }

  bool isMade() const { return statement_ != nullptr; }

  /// From 1 on. A text or blob must stay as it is until the statement is reset.
  Statement& bind(int place, std::int64_t number);
  Statement& bind(int place, std::string_view text);
  Statement& bindBlob(int place, std::string_view bytes);
  Statement& bindNull(int place);

  /// True with a row to read; false at the end, or after an error: see result().
  bool row();
  /// Runs to the end and makes ready for the next use. False after an error.
  bool run();
  void reset();
  /// SQLITE_ROW, SQLITE_DONE or an error code, of the last step.
  int result() const { return result_; }

  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  /// Texts and blobs; valid until the next step.
  std::string_view bytes(int column) const;
  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

 private:
  sqlite3_stmt* statement_;
  int result_ = SQLITE_OK;
};

class Connection {
 public:
  enum class Mode : bool { kReadOnly, kReadWrite };

  /// A file that is made is private to the user. Waits up to ten seconds for other processes. In
  /// place of an absolute path `path` may be a "file:" URI.
  static Result<std::unique_ptr<Connection>> open(const std::string& path, Mode mode);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  sqlite3* handle() const { return db_; }
  /// One or several statements without results.
  bool execute(const char* sql);
  /// A statement ready to bind and step, made at its first use and kept; `sql` lives for ever. One
  /// that cannot be made steps to an error.
  Statement& statement(const char* sql);
  Statement prepare(const char* sql);
  /// Gives back the pages that it keeps for later, when they are many.
  void releasePages();
  /// What went wrong last, with `what` before it.
  Error error(std::string_view what) const;

 private:
  explicit Connection(sqlite3* db) : db_(db) {}
  sqlite3* db_;
  std::unordered_map<const char*, std::unique_ptr<Statement>> statements_;
};

/// Begins at once; rolls back unless committed.
class Transaction {
 public:
  explicit Transaction(Connection& connection);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  bool begun() const { return open_; }
  bool commit();

 private:
  Connection& connection_;
  bool open_;
};

/// All that is read until it ends is of one state of the database.
class ReadTransaction {
 public:
  explicit ReadTransaction(Connection& connection) : connection_(connection) {
    static_cast<void>(connection_.execute("BEGIN"));
  }
  ~ReadTransaction() { static_cast<void>(connection_.execute("COMMIT")); }
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;

 private:
  Connection& connection_;
};

/// Read-only connections to one file, as many as there are readers at once.
class ReadPool {
 public:
  /// `prepare` makes each new connection ready; one that it returns false for is not lent.
  explicit ReadPool(std::string path, bool (*prepare)(Connection& connection) = nullptr)
      : path_(std::move(path)), prepare_(prepare) {}

  /// A connection for one use; goes back when it is destroyed. Empty when none can be opened.
  class Lease {
   public:
    Lease(ReadPool* pool, std::unique_ptr<Connection> connection);
    Lease(Lease&&) noexcept = default;
    Lease& operator=(Lease&&) = delete;
    ~Lease();
    explicit operator bool() const { return connection_ != nullptr; }
    Connection* operator->() const { return connection_.get(); }
    Connection& operator*() const { return *connection_; }

   private:
    ReadPool* pool_;
    std::unique_ptr<Connection> connection_;
  };

  /// Waits while the pool is closed.
  Lease borrow();
  /// Waits until every connection is back and closes all; until reopen() nobody gets one.
  void close();
  void reopen();

 private:
  void giveBack(std::unique_ptr<Connection> connection);

  const std::string path_;
  bool (*const prepare_)(Connection& connection);
  Mutex mutex_;
  ConditionVariable changed_;
  std::vector<std::unique_ptr<Connection>> idle_ THMP_GUARDED_BY(mutex_);
  std::size_t lent_ THMP_GUARDED_BY(mutex_) = 0;
  bool closed_ THMP_GUARDED_BY(mutex_) = false;
};

/// Whether `count` row IDs from `lowest` to `highest` are so close together that reading all rows
/// between them costs less than a statement for each.
bool areClose(std::int64_t lowest, std::int64_t highest, std::size_t count) noexcept;

/// Makes the folder of the absolute `path` and those above it that are missing, each private to the
/// user and synced into the one above.
bool makeParentFolders(const std::string& path, Error* error = nullptr);

}  // namespace thmp
