// SPDX-License-Identifier: Apache-2.0
#include "host/adapter/HostMail.h"

#include <utility>

namespace thmp {
namespace {

class BundleClass : public MailBundleClass {
 public:
  explicit BundleClass(std::shared_ptr<std::atomic<bool>> registered)
      : registered_(std::move(registered)) {}
  void registerBundle() override { *registered_ = true; }

 private:
  const std::shared_ptr<std::atomic<bool>> registered_;
};

class LentConnection : public LibraryConnection {
 public:
  explicit LentConnection(sqlite3* handle) : handle_(handle) {}
  sqlite3* sqlDB() override { return handle_; }

 private:
  sqlite3* const handle_;
};

class Message : public MailMessage {
 public:
  Message(const Library& library, std::int64_t id) : library_(library), id_(id) {}
  std::optional<std::string> path() override { return library_.pathOfMessage(id_); }

 private:
  const Library& library_;
  const std::int64_t id_;
};

class DefaultLibrary : public MailLibrary {
 public:
  explicit DefaultLibrary(const Library& library) : library_(library) {
    database_->performReadBlock = [&library](const std::function<bool(LibraryConnection&)>& block) {
      library.performRead([&block](sqlite3* handle) {
        LentConnection connection(handle);
        return block(connection);
      });
    };
    libraryDatabase = [this] { return database_; };
    dataPathForMessage = [&library](std::int64_t id, std::int64_t mailbox, int type) {
      return library.dataPath(id, mailbox, type);
    };
    dataPathsForMessages = [&library](std::span<const MailMessagePlace> messages, int type) {
      return library.dataPaths(messages, type);
    };
  }

  std::shared_ptr<MailMessage> messageWithLibraryID(std::int64_t libraryID) override {
    return std::make_shared<Message>(library_, libraryID);
  }

 private:
  const Library& library_;
  const std::shared_ptr<LibraryDatabase> database_ = std::make_shared<LibraryDatabase>();
};

class LibraryClass : public MailLibraryClass {
 public:
  explicit LibraryClass(const Library& library)
      : library_(std::make_shared<DefaultLibrary>(library)) {}
  std::shared_ptr<MailLibrary> defaultLibrary() override { return library_; }

 private:
  const std::shared_ptr<MailLibrary> library_;
};

}  // namespace

HostMail::HostMail(const Library& library)
    : registered_(std::make_shared<std::atomic<bool>>(false)),
      bundleClass_(std::make_shared<BundleClass>(registered_)),
      libraryClass_(std::make_shared<LibraryClass>(library)) {}

std::shared_ptr<MailBundleClass> HostMail::bundleClass(const std::string& name) {
  return name == "MVMailBundle" ? bundleClass_ : nullptr;
}

std::shared_ptr<MailLibraryClass> HostMail::libraryClass(const std::string& name) {
  return name == "MFLibrary" ? libraryClass_ : nullptr;
}

}  // namespace thmp
