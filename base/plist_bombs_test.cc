// SPDX-License-Identifier: Apache-2.0
//
// What a hostile file of up to 1 MiB can cost at most: 50 ms of one processor in an optimised build
// and 64 MiB beside the file itself. Memory is counted in operator new.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "base/plist.h"
#include "tests/support/binary_plist_bytes.h"

namespace {

std::atomic<std::size_t> memoryNow{0};
std::atomic<std::size_t> memoryPeak{0};

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  void* memory = std::malloc(size);
  if (memory == nullptr) return nullptr;
  const std::size_t now = memoryNow += malloc_usable_size(memory);
  std::size_t peak = memoryPeak;
  while (now > peak && !memoryPeak.compare_exchange_weak(peak, now)) {
  }
  return memory;
}

void* operator new(std::size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void operator delete(void* memory) noexcept {
  memoryNow -= malloc_usable_size(memory);
  std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept { operator delete(memory); }

namespace thmp {
namespace {

using testing::ascii;
using testing::binaryPropertyList;
using testing::byte;
using testing::container;
using testing::head;

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

#if defined(__OPTIMIZE__)
constexpr double kMaxSeconds = 0.05;
#else
constexpr double kMaxSeconds = 1.5;
#endif

enum class Outcome : std::uint8_t { kRead, kRefused };
using enum Outcome;

struct Bomb {
  const char* what;
  Outcome outcome;
  std::function<std::string()> make;
};

std::string repeated(std::string_view piece, std::size_t count) {
  std::string text;
  text.reserve(piece.size() * count);
  for (std::size_t i = 0; i < count; ++i) text += piece;
  return text;
}

std::string sharedReferences() {
  std::vector<std::string> objects;
  for (std::size_t i = 0; i < 250; ++i) objects.push_back(container(0xA0, {i + 1, i + 1}));
  objects.push_back(byte(0x09));
  return binaryPropertyList(objects);
}

std::string wideSharing() {
  std::vector<std::string> objects;
  for (std::size_t i = 0; i < 100; ++i) {
    objects.push_back(container(0xA0, std::vector<std::uint64_t>(5000, i + 1)));
  }
  objects.push_back(byte(0x09));
  return binaryPropertyList(objects);
}

std::string arrayOfOneObject() {
  return binaryPropertyList({head(0xA0, 999'998) + std::string(999'998, '\1'), byte(0x09)});
}

std::string dictionaryOfOneKey() {
  return binaryPropertyList({head(0xD0, 333'000) + std::string(666'000, '\1'), ascii("k")});
}

/// Keys that differ in their last bytes only, in as many dictionaries as there is room for, each
/// time in the wrong order.
std::string longKeysInManyDictionaries(std::size_t keys, std::size_t keySize) {
  std::vector<std::string> objects;
  std::vector<std::uint64_t> members;
  const std::size_t rows = (kMebibyte - keys * keySize - 10'000) / (4 * keys + 24);
  for (std::size_t i = 0; i < keys; ++i) members.push_back(rows + keys - i);
  members.resize(2 * keys, rows + 1);
  std::vector<std::uint64_t> rowNumbers;
  for (std::size_t i = 0; i < rows; ++i) rowNumbers.push_back(i + 1);
  objects.push_back(container(0xA0, rowNumbers, 2));
  for (std::size_t i = 0; i < rows; ++i) objects.push_back(container(0xD0, members, 2));
  for (std::size_t i = 0; i < keys; ++i) {
    objects.push_back(ascii(std::string(keySize - 3, 'k') + std::to_string(100 + i)));
  }
  return binaryPropertyList(objects, {.referenceSize = 2});
}

std::string manyKeysBackwards() {
  constexpr std::size_t kKeys = 60'000;
  std::vector<std::string> objects;
  std::vector<std::uint64_t> members;
  for (std::size_t i = 0; i < kKeys; ++i) members.push_back(kKeys - i);
  members.resize(2 * kKeys, 1);
  objects.push_back(container(0xD0, members, 3));
  for (std::size_t i = 0; i < kKeys; ++i) {
    std::string key;
    for (std::size_t n = i, digit = 0; digit < 3; ++digit, n /= 50) {
      key.insert(0, 1, static_cast<char>('0' + n % 50));
    }
    objects.push_back(ascii(key));
  }
  return binaryPropertyList(objects, {.offsetSize = 3, .referenceSize = 3});
}

std::string manyNumbersOfOneText() {
  const std::size_t objects = 60'000;
  std::string bytes = "bplist00";
  std::vector<std::uint64_t> offsets(objects, 8 + 9 + 2 * objects + 1);
  offsets[0] = 8;
  std::vector<std::uint64_t> members;
  for (std::size_t i = 1; i < objects; ++i) members.push_back(i);
  return binaryPropertyList({container(0xA0, members, 2), ascii(std::string(600'000, 'x'))},
                            {.offsetSize = 3, .referenceSize = 2, .offsets = offsets});
}

std::string objectsInEachOther() {
  // Arrays that begin at each byte of a run of array heads.
  const std::size_t count = 200'000;
  std::vector<std::uint64_t> offsets;
  for (std::size_t i = 0; i < count; ++i) offsets.push_back(8 + i);
  return binaryPropertyList({std::string(count + 20, '\xAE')},
                            {.offsetSize = 3, .referenceSize = 1, .offsets = offsets});
}

std::string manyUnusedObjects() {
  return binaryPropertyList({byte(0x09)},
                            {.offsetSize = 1, .offsets = std::vector<std::uint64_t>(990'000, 8)});
}

std::string manySmallObjects() {
  constexpr std::size_t kCount = 130'000;
  std::vector<std::string> objects;
  std::vector<std::uint64_t> members;
  for (std::size_t i = 1; i < kCount; ++i) members.push_back(i);
  objects.push_back(container(0xA0, members, 3));
  for (std::size_t i = 1; i < kCount; ++i) objects.push_back(byte(0x51) + "x");
  return binaryPropertyList(objects, {.offsetSize = 3, .referenceSize = 3});
}

std::string manySmallContainers() {
  constexpr std::size_t kCount = 110'000;
  std::vector<std::string> objects;
  std::vector<std::uint64_t> members;
  for (std::size_t i = 1; i < kCount; ++i) members.push_back(i);
  objects.push_back(container(0xA0, members, 2 + 1));
  for (std::size_t i = 1; i < kCount; ++i) objects.push_back(byte(0xA0));
  return binaryPropertyList(objects, {.offsetSize = 3, .referenceSize = 3});
}

std::string deep() {
  std::vector<std::string> objects;
  for (std::size_t i = 0; i < 100'000; ++i) objects.push_back(container(0xA0, {i + 1}, 3));
  objects.push_back(byte(0x09));
  return binaryPropertyList(objects, {.referenceSize = 3});
}

std::string wideText() {
  return binaryPropertyList({head(0x60, 520'000) + repeated("\xD8\x3D", 520'000)});
}

std::string distinctAttributes() {
  std::string text = "<plist";
  for (std::size_t i = 0; text.size() < 900'000; ++i) text += " a" + std::to_string(i) + "=\"\"";
  return text + "><true/></plist>";
}

std::string defaultAttributes() {
  std::string text = "<!DOCTYPE plist [";
  for (std::size_t i = 0; i < 15'000; ++i) {
    text += "<!ATTLIST true a" + std::to_string(i) + " CDATA ''>";
  }
  return text + "]><array>" + repeated("<true/>", 60'000) + "</array>";
}

std::string distinctKeys() {
  std::string text = "<dict>";
  for (std::size_t i = 0; text.size() < 1'000'000; ++i) {
    text += "<key>" + std::to_string(i * 7919 % 100'003) + "</key><true/>";
  }
  return text + "</dict>";
}

std::string longKeys() {
  std::string text = "<dict>";
  const std::string same(2000, 'k');
  for (std::size_t i = 0; text.size() < 1'000'000; ++i) {
    text += "<key>" + same + std::to_string(i * 7919 % 1009) + "</key><true/>";
  }
  return text + "</dict>";
}

std::string entities() {
  std::string text = "<!DOCTYPE plist [<!ENTITY a0 \"haha\">";
  for (int i = 1; i < 40; ++i) {
    const std::string last = "&a" + std::to_string(i - 1) + ";";
    text += "<!ENTITY a" + std::to_string(i) + " \"" + repeated(last, 10) + "\">";
  }
  return text + "]><plist><string>&a39;</string></plist>";
}

const std::vector<Bomb>& bombs() {
  static const std::vector<Bomb>& all = *new std::vector<Bomb>{
      {"shared references", kRefused, sharedReferences},
      {"shared references, wide", kRefused, wideSharing},
      {"an array of one object", kRead, arrayOfOneObject},
      {"a dictionary of one key", kRead, dictionaryOfOneKey},
      {"long keys", kRead, [] { return longKeysInManyDictionaries(120, 4000); }},
      {"very long keys", kRead, [] { return longKeysInManyDictionaries(8, 60'000); }},
      {"short keys in many dictionaries", kRead,
       [] { return longKeysInManyDictionaries(20, 200); }},
      {"many keys backwards", kRead, manyKeysBackwards},
      {"one text under many numbers", kRefused, manyNumbersOfOneText},
      {"objects in each other", kRefused, objectsInEachOther},
      {"objects that nobody refers to", kRead, manyUnusedObjects},
      {"many small objects", kRead, manySmallObjects},
      {"many small containers", kRead, manySmallContainers},
      {"deep arrays", kRefused, deep},
      {"a text of surrogates", kRead, wideText},
      {"XML: many booleans", kRead,
       [] { return "<array>" + repeated("<true/>", 145'000) + "</array>"; }},
      {"XML: many arrays", kRead,
       [] { return "<array>" + repeated("<array/>", 125'000) + "</array>"; }},
      {"XML: many texts", kRead,
       [] { return "<array>" + repeated("<string>x</string>", 55'000) + "</array>"; }},
      {"XML: deep arrays", kRefused, [] { return repeated("<array>", 145'000); }},
      {"XML: one long text", kRead,
       [] { return "<string>" + std::string(1'000'000, 'x') + "</string>"; }},
      {"XML: many line ends", kRead,
       [] { return "<string>" + repeated("\r\n", 500'000) + "</string>"; }},
      {"XML: many character references", kRead,
       [] { return "<string>" + repeated("&lt;", 250'000) + "</string>"; }},
      {"XML: many CDATA sections", kRead,
       [] { return "<string>" + repeated("<![CDATA[]]>", 80'000) + "</string>"; }},
      {"XML: long data", kRead, [] { return "<data>" + std::string(1'000'000, 'A') + "</data>"; }},
      {"XML: a long integer", kRefused,
       [] { return "<integer>" + std::string(1'000'000, '9') + "</integer>"; }},
      {"XML: a long real", kRead,
       [] { return "<real>0." + std::string(1'000'000, '9') + "</real>"; }},
      {"XML: comments", kRead, [] { return repeated("<!---->", 140'000) + "<true/>"; }},
      {"XML: one comment that does not end", kRefused,
       [] { return "<!--" + repeated("- ", 500'000); }},
      {"XML: attributes", kRefused, distinctAttributes},
      {"XML: default attributes", kRefused, defaultAttributes},
      {"XML: distinct keys", kRead, distinctKeys},
      {"XML: long keys", kRead, longKeys},
      {"XML: entities", kRefused, entities},
      {"XML: content models", kRefused,
       [] { return "<!DOCTYPE a [<!ELEMENT a " + std::string(500'000, '(') + "]><true/>"; }},
      {"XML: a long element name", kRefused,
       [] { return "<" + std::string(1'000'000, 'x') + "/>"; }},
      {"XML: many unclosed brackets", kRefused, [] { return std::string(1'000'000, '<'); }},
  };
  return all;
}

TEST(HostileFiles, CostLittleTimeAndMemory) {
  for (const Bomb& bomb : bombs()) {
    SCOPED_TRACE(bomb.what);
    const std::string bytes = bomb.make();
    ASSERT_LE(bytes.size(), kMebibyte);
    double seconds = 1e9;
    std::size_t memory = 0;
    for (int round = 0; round < 3; ++round) {  // the best of three: others run on this machine too
      const std::size_t before = memoryNow;
      memoryPeak = before;
      const std::clock_t start = std::clock();
      EXPECT_EQ(readPropertyList(bytes, kMessageLimits).has_value(), bomb.outcome == kRead);
      seconds = std::min(seconds, static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
      memory = memoryPeak - before;
    }
    EXPECT_LE(seconds, kMaxSeconds);
    EXPECT_LE(memory, 64 * kMebibyte);
    RecordProperty(bomb.what, std::to_string(seconds * 1000) + " ms, " +
                                  std::to_string(memory / 1024) + " KiB");
  }
  RecordProperty("bad_inputs", static_cast<int>(bombs().size()));
}

TEST(HostileFiles, ThatAreReadAreAlsoWrittenAndCompared) {
  for (const Bomb& bomb : bombs()) {
    SCOPED_TRACE(bomb.what);
    const std::optional<Value> value = readPropertyList(bomb.make(), kMessageLimits);
    if (bomb.outcome == kRefused) continue;
    ASSERT_TRUE(value.has_value());
    const std::optional<std::string> bytes = writeBinaryPropertyList(*value);
    ASSERT_TRUE(bytes.has_value());
    const std::optional<Value> again = readPropertyList(*bytes, kMessageLimits);
    ASSERT_TRUE(again.has_value());
    EXPECT_TRUE(Value::identical(*value, *again));
  }
}

}  // namespace
}  // namespace thmp
