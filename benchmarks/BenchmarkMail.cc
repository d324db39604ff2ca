// SPDX-License-Identifier: Apache-2.0
#include "benchmarks/BenchmarkMail.h"

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <utility>

#include "host/index/Indexer.h"

namespace thmp::benchmarks {
namespace {

constexpr std::array<const char*, 16> kWords{
    "lake",    "report",  "window",           "invoice",
    "travel",  "agenda",  "garden",           "\xC3\xA9t\xC3\xA9",
    "train",   "project", "letter",           "autumn",
    "picture", "ticket",  "stra\xC3\x9F\x65", "meeting"};

std::string words(std::mt19937_64& random, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += kWords[random() % kWords.size()];
    if (random() % 3 == 0) text += std::to_string(random() % 5'000);
    text += i % 12 == 11 ? '\n' : ' ';
  }
  return text;
}

std::string message(std::mt19937_64& random, std::size_t number) {
  const std::string person = std::to_string(random() % 300);
  const std::string name = std::to_string(number) + "@example.org";
  return "From: Person " + person + " <person" + person +
         "@example.com>\nTo: Robin Hale <robin@example.org>, Ada <ada" +
         std::to_string(random() % 40) + "@example.org>\nSubject: " + words(random, 4) +
         "\nDate: " + std::to_string(1 + number % 28) + " Mar 2024 10:20:30 +0000\nMessage-ID: <" +
         name + ">\nReferences: <" + name + ">\nContent-Type: text/plain; charset=utf-8\n\n" +
         words(random, 60) + "\n";
}

[[noreturn]] void giveUp(const Error& error) {
  std::fprintf(stderr, "no mail to measure with: %s\n", error.text().c_str());
  std::exit(1);
}

template <typename T>
T taken(Result<T> result) {
  if (!result) giveUp(result.error());
  return *std::move(result);
}

}  // namespace

BenchmarkMail& BenchmarkMail::shared() {
  static BenchmarkMail mail;
  return mail;
}

BenchmarkMail::BenchmarkMail() {
  folder_ = (std::filesystem::temp_directory_path() / "tallyhive-micro-XXXXXX").string();
  if (::mkdtemp(folder_.data()) == nullptr) giveUp(Error::posix(errno, "no temporary folder"));
  writeMail();
  library_ = taken(Library::open(libraryFile(), Library::Access::kReadWrite));
  index_ = taken(Index::open(folder_ + "/index.sqlite", Index::Access::kReadWrite));
  Indexer indexer(*library_, *index_);
  indexer.setRoots({folder_ + "/Mail"});
  taken(indexer.update());
  if (const Result<void> made = index_->prepareColumns(); !made) giveUp(made.error());
  if (const Result<void> read = index_->forEachDescending([this](const IndexedMessage& message) {
        ids_.push_back(message.id());
        return true;
      });
      !read) {
    giveUp(read.error());
  }
  std::shuffle(ids_.begin(), ids_.end(), std::mt19937_64(1));
  ids_.resize(kBatch);
}

BenchmarkMail::~BenchmarkMail() {
  index_.reset();
  library_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void BenchmarkMail::writeMail() const {
  const std::string mail = folder_ + "/Mail/";
  for (const char* part : {"cur", "new", "tmp"}) std::filesystem::create_directories(mail + part);
  std::mt19937_64 random(1);
  for (std::size_t number = 0; number < kMessages; ++number) {
    std::string path = mail;
    path += "cur/" + std::to_string(1'700'000'000 + number) + ".micro:2,S";
    std::ofstream(path, std::ios::binary) << message(random, number);
  }
}

std::vector<FoundItem> BenchmarkMail::items() {
  AttributeSelection all;
  all.set();
  const auto entries = std::make_shared<const RecordEntries>(all);
  std::vector<FoundItem> items;
  for (const std::int64_t id : ids_) {
    FoundItem item;
    item.libraryID = id;
    if (const auto message = index_->get(id)) item.attributes = attributesOf(*message, entries);
    items.push_back(std::move(item));
  }
  return items;
}

Value BenchmarkMail::batch() {
  std::vector<Value> messages;
  for (FoundItem& item : items()) {
    item.path = folder_ + "/Mail/cur/" + std::to_string(*item.libraryID);
    messages.emplace_back(item.dictionary());
  }
  return Dictionary{{"messages", Array(std::move(messages))}, {"uniqueName", "micro"}};
}

const std::string& BenchmarkMail::text() {
  static const std::string text = [] {
    std::mt19937_64 random(2);
    return words(random, 400);
  }();
  return text;
}

}  // namespace thmp::benchmarks
