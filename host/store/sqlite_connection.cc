// SPDX-License-Identifier: Apache-2.0
#include "host/store/sqlite_connection.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/posix_io.h"

namespace thmp {

namespace {

constexpr int kBusyMilliseconds = 10'000;
constexpr std::size_t kMostIdle = 8;

// SQLite would give the file the umask's mode, and its companions the file's.
void makePrivateFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd >= 0) ::close(fd);
}

}  // namespace

Statement::Statement(Statement&& other) noexcept
    : statement_(std::exchange(other.statement_, nullptr)), result_(other.result_) {}

Statement& Statement::bind(int place, std::int64_t number) {
  sqlite3_bind_int64(statement_, place, number);
  return *this;
}

Statement& Statement::bind(int place, std::string_view text) {
  sqlite3_bind_text64(statement_, place, text.empty() ? "" : text.data(), text.size(),
                      SQLITE_STATIC, SQLITE_UTF8);
  return *this;
}

Statement& Statement::bindBlob(int place, std::string_view bytes) {
  sqlite3_bind_blob64(statement_, place, bytes.empty() ? "" : bytes.data(), bytes.size(),
                      SQLITE_STATIC);
  return *this;
}

Statement& Statement::bindNull(int place) {
  sqlite3_bind_null(statement_, place);
  return *this;
}

bool Statement::row() {
  result_ = statement_ == nullptr ? SQLITE_MISUSE : sqlite3_step(statement_);
  if (result_ != SQLITE_ROW && statement_ != nullptr) sqlite3_reset(statement_);
  return result_ == SQLITE_ROW;
}

bool Statement::run() {
  while (row()) {
  }
  return result_ == SQLITE_DONE;
}

void Statement::reset() {
  if (statement_ != nullptr) sqlite3_reset(statement_);
}

std::string_view Statement::bytes(int column) const {
  const void* data = sqlite3_column_blob(statement_, column);
  const int size = sqlite3_column_bytes(statement_, column);
  if (data == nullptr || size <= 0) return {};
  return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
}

Result<std::unique_ptr<Connection>> Connection::open(const std::string& path, Mode mode) {
  // Nobody asks SQLite how much memory it has taken, and each of its allocations would lock a mutex
  // to count. Too late in a process that uses it already, which is no harm.
  [[maybe_unused]] static const int kWithoutCounts = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  const bool writes = mode == Mode::kReadWrite;
  if (writes) makePrivateFile(path);
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_URI |
                    (writes ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY);
  const int code = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  auto connection = std::unique_ptr<Connection>(new Connection(db));
  if (code != SQLITE_OK) return connection->error("cannot open " + path);
  sqlite3_extended_result_codes(db, 1);
  sqlite3_busy_timeout(db, kBusyMilliseconds);
  if (!writes) {
    // A file that is mapped would stay in memory page by page, and most of it is not asked for
    // again; reading a page costs little beside what is made of it. So would the pages that each
    // reader keeps.
    connection->execute("PRAGMA query_only = 1; PRAGMA mmap_size = 0; PRAGMA cache_size = -512");
  }
  return connection;
}

Connection::~Connection() {
  statements_.clear();
  sqlite3_close_v2(db_);
}

bool Connection::execute(const char* sql) {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

Statement Connection::prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr);
  return Statement(statement);
}

Statement& Connection::statement(const char* sql) {
  std::unique_ptr<Statement>& kept = statements_[sql];
  // One that could not be made may be made now.
  if (!kept || !kept->isMade()) kept = std::make_unique<Statement>(prepare(sql));
  kept->reset();
  return *kept;
}

void Connection::releasePages() {
  constexpr int kFewBytes = 1 << 20;
  int used = 0;
  int most = 0;
  sqlite3_db_status(db_, SQLITE_DBSTATUS_CACHE_USED, &used, &most, 0);
  if (used > kFewBytes) sqlite3_db_release_memory(db_);
}

Error Connection::error(std::string_view what) const {
  Error error;
  error.domain = kSqliteErrorDomain;
  error.code = db_ == nullptr ? SQLITE_NOMEM : sqlite3_extended_errcode(db_);
  error.description =
      std::string(what) + ": " + (db_ == nullptr ? "out of memory" : sqlite3_errmsg(db_));
  if ((error.code & 0xFF) == SQLITE_FULL) {
    error.description =
        std::string(what) +
        ": no space is left on its disk; make room there, and the next update goes on from here";
  }
  return error;
}

Transaction::Transaction(Connection& connection)
    : connection_(connection), open_(connection.execute("BEGIN IMMEDIATE")) {}

Transaction::~Transaction() {
  if (open_) connection_.execute("ROLLBACK");
}

bool Transaction::commit() {
  if (!open_ || !connection_.execute("COMMIT")) return false;
  open_ = false;
  return true;
}

ReadPool::Lease::Lease(ReadPool* pool, std::unique_ptr<Connection> connection)
    : pool_(pool), connection_(std::move(connection)) {}

ReadPool::Lease::~Lease() {
  if (connection_) pool_->giveBack(std::move(connection_));
}

ReadPool::Lease ReadPool::borrow() {
  {
    const Lock lock(mutex_);
    while (closed_) changed_.wait(mutex_);
    ++lent_;
    if (!idle_.empty()) {
      auto connection = std::move(idle_.back());
      idle_.pop_back();
      return Lease(this, std::move(connection));
    }
  }
  auto opened = Connection::open(path_, Connection::Mode::kReadOnly);
  if (opened && (prepare_ == nullptr || prepare_(**opened))) {
    return Lease(this, std::move(*opened));
  }
  giveBack(nullptr);
  return Lease(this, nullptr);
}

void ReadPool::giveBack(std::unique_ptr<Connection> connection) {
  const Lock lock(mutex_);
  --lent_;
  if (connection && idle_.size() < kMostIdle) idle_.push_back(std::move(connection));
  changed_.notify_all();
}

void ReadPool::close() {
  const Lock lock(mutex_);
  closed_ = true;
  while (lent_ > 0) changed_.wait(mutex_);
  idle_.clear();
}

void ReadPool::reopen() {
  const Lock lock(mutex_);
  closed_ = false;
  changed_.notify_all();
}

bool areClose(std::int64_t lowest, std::int64_t highest, std::size_t count) noexcept {
  constexpr std::size_t kSpread = 4;
  return static_cast<std::uint64_t>(highest) - static_cast<std::uint64_t>(lowest) < kSpread * count;
}

bool makeParentFolders(const std::string& path, Error* error) {
  // SQLite syncs its files and their names, nothing above them.
  const std::string folder = path.substr(0, path.rfind('/'));
  return createFolders(folder) ||
         fail(error, Error::posix(errno, "cannot make the folder " + folder));
}

}  // namespace thmp
