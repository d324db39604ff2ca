// SPDX-License-Identifier: Apache-2.0
#include "platform/fake/ScriptedMail.h"

#include <sqlite3.h>

#include <cassert>
#include <utility>

namespace thmp {
namespace {

class Connection : public LibraryConnection {
 public:
  explicit Connection(sqlite3* handle) : handle_(handle) {}
  sqlite3* sqlDB() override { return handle_; }

 private:
  sqlite3* const handle_;
};

class Message : public MailMessage {
 public:
  explicit Message(std::optional<std::string> path) : path_(std::move(path)) {}
  std::optional<std::string> path() override { return path_; }

 private:
  const std::optional<std::string> path_;
};

}  // namespace

ScriptedDatabase::ScriptedDatabase() {
  [[maybe_unused]] const int opened =
      sqlite3_open_v2(":memory:", &handle_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  assert(opened == SQLITE_OK);
  execute("CREATE TABLE messages (rowid INTEGER PRIMARY KEY, mailbox INTEGER)");
  sqlite3_trace_v2(
      handle_, SQLITE_TRACE_STMT,
      [](unsigned, void* self, void*, void* text) {
        auto& database = *static_cast<ScriptedDatabase*>(self);
        const Lock lock(database.mutex_);
        try {
          database.statements_.emplace_back(static_cast<const char*>(text));
        } catch (...) {
          // Nothing may be thrown through SQLite.
        }
        return 0;
      },
      this);
  performReadBlock = [this](const std::function<bool(LibraryConnection & connection)>& block) {
    runReadBlock(block);
  };
}

ScriptedDatabase::~ScriptedDatabase() { sqlite3_close_v2(handle_); }

void ScriptedDatabase::addRow(std::int64_t libraryID, std::int64_t mailboxID) {
  execute("INSERT INTO messages (rowid, mailbox) VALUES (" + std::to_string(libraryID) + ", " +
          std::to_string(mailboxID) + ")");
}

void ScriptedDatabase::execute(const std::string& sql) {
  std::vector<std::string> recorded = statements();
  [[maybe_unused]] const int result = sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr);
  assert(result == SQLITE_OK);
  const Lock lock(mutex_);
  statements_ = std::move(recorded);
}

void ScriptedDatabase::lendNullHandle(bool null) {
  const Lock lock(mutex_);
  null_ = null;
}

int ScriptedDatabase::readBlocks() const {
  const Lock lock(mutex_);
  return readBlocks_;
}

std::optional<bool> ScriptedDatabase::lastBlockResult() const {
  const Lock lock(mutex_);
  return lastResult_;
}

std::vector<std::string> ScriptedDatabase::statements() const {
  const Lock lock(mutex_);
  return statements_;
}

int ScriptedDatabase::openStatements() const {
  int count = 0;
  for (sqlite3_stmt* statement = nullptr;
       (statement = sqlite3_next_stmt(handle_, statement)) != nullptr;) {
    ++count;
  }
  return count;
}

void ScriptedDatabase::runReadBlock(
    const std::function<bool(LibraryConnection& connection)>& block) {
  sqlite3* lent = handle_;
  {
    const Lock lock(mutex_);
    ++readBlocks_;
    if (null_) lent = nullptr;
  }
  Connection connection(lent);
  const bool result = block(connection);
  const Lock lock(mutex_);
  lastResult_ = result;
}

ScriptedLibrary::ScriptedLibrary() {
  libraryDatabase = [this] {
    const Lock lock(mutex_);
    return lent_;
  };
  dataPathForMessage = [this](std::int64_t libraryID, std::int64_t mailboxID, int type) {
    return dataPath({libraryID, mailboxID, type});
  };
}

void ScriptedLibrary::setDatabase(std::shared_ptr<ScriptedDatabase> database) {
  const Lock lock(mutex_);
  lent_.swap(database);
}

void ScriptedLibrary::setDataPath(std::int64_t libraryID, std::int64_t mailboxID, int type,
                                  const std::string& path) {
  const Lock lock(mutex_);
  dataPaths_[{libraryID, mailboxID, type}] = path;
}

void ScriptedLibrary::setMessage(std::int64_t libraryID, std::optional<std::string> path) {
  const Lock lock(mutex_);
  messages_[libraryID] = std::move(path);
}

std::vector<ScriptedLibrary::DataPathCall> ScriptedLibrary::dataPathCalls() const {
  const Lock lock(mutex_);
  return dataPathCalls_;
}

std::vector<std::int64_t> ScriptedLibrary::messageCalls() const {
  const Lock lock(mutex_);
  return messageCalls_;
}

std::shared_ptr<MailMessage> ScriptedLibrary::messageWithLibraryID(std::int64_t libraryID) {
  const Lock lock(mutex_);
  messageCalls_.push_back(libraryID);
  const auto found = messages_.find(libraryID);
  return found == messages_.end() ? nullptr : std::make_shared<Message>(found->second);
}

std::string ScriptedLibrary::dataPath(const DataPathCall& call) {
  const Lock lock(mutex_);
  dataPathCalls_.push_back(call);
  const auto found = dataPaths_.find(call);
  return found == dataPaths_.end() ? std::string() : found->second;
}

class ScriptedMail::BundleClass : public MailBundleClass {
 public:
  explicit BundleClass(ScriptedMail& mail) : mail_(mail) {}

  void registerBundle() override {
    Hook hook;
    {
      const Lock lock(mail_.mutex_);
      ++mail_.registerBundleCount_;
      hook = mail_.onRegisterBundle_;
    }
    if (hook) hook();
  }

 private:
  ScriptedMail& mail_;
};

class ScriptedMail::LibraryClass : public MailLibraryClass {
 public:
  explicit LibraryClass(ScriptedMail& mail) : mail_(mail) {}

  std::shared_ptr<MailLibrary> defaultLibrary() override {
    const Lock lock(mail_.mutex_);
    ++mail_.defaultLibraryCount_;
    return mail_.hasLibrary_ ? mail_.library_ : nullptr;
  }

 private:
  ScriptedMail& mail_;
};

void ScriptedMail::addMessage(std::int64_t libraryID, std::int64_t mailboxID,
                              const std::string& path) {
  database().addRow(libraryID, mailboxID);
  library().setDataPath(libraryID, mailboxID, 0, path);
}

void ScriptedMail::setHasBundleClass(bool has) {
  const Lock lock(mutex_);
  hasBundleClass_ = has;
}

void ScriptedMail::setHasLibraryClass(bool has) {
  const Lock lock(mutex_);
  hasLibraryClass_ = has;
}

void ScriptedMail::setHasLibrary(bool has) {
  const Lock lock(mutex_);
  hasLibrary_ = has;
}

void ScriptedMail::onRegisterBundle(Hook hook) {
  const Lock lock(mutex_);
  onRegisterBundle_ = std::move(hook);
}

int ScriptedMail::registerBundleCount() const {
  const Lock lock(mutex_);
  return registerBundleCount_;
}

int ScriptedMail::defaultLibraryCount() const {
  const Lock lock(mutex_);
  return defaultLibraryCount_;
}

std::vector<std::string> ScriptedMail::classNames() const {
  const Lock lock(mutex_);
  return classNames_;
}

std::shared_ptr<MailBundleClass> ScriptedMail::bundleClass(const std::string& name) {
  const Lock lock(mutex_);
  classNames_.push_back(name);
  if (!hasBundleClass_ || name != "MVMailBundle") return nullptr;
  return std::make_shared<BundleClass>(*this);
}

std::shared_ptr<MailLibraryClass> ScriptedMail::libraryClass(const std::string& name) {
  const Lock lock(mutex_);
  classNames_.push_back(name);
  if (!hasLibraryClass_ || name != "MFLibrary") return nullptr;
  return std::make_shared<LibraryClass>(*this);
}

}  // namespace thmp
