// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/plist.h"
#include "tests/support/binary_plist_bytes.h"

namespace thmp {
namespace {

using testing::array;
using testing::ascii;
using testing::bigEndian;
using testing::binaryPropertyList;
using testing::byte;
using testing::container;
using testing::dictionary;
using testing::head;
using testing::Lies;

constexpr std::uint64_t kHuge = UINT64_MAX;

std::string real(double number) {
  return byte(0x23) + bigEndian(std::bit_cast<std::uint64_t>(number), 8);
}
std::string date(double number) {
  return byte(0x33) + bigEndian(std::bit_cast<std::uint64_t>(number), 8);
}
std::string utf16(const std::vector<unsigned>& units) {
  std::string bytes = head(0x60, units.size());
  for (unsigned unit : units) bytes += bigEndian(unit, 2);
  return bytes;
}

std::optional<Value> read(std::string_view bytes, Error* error = nullptr) {
  return readPropertyList(bytes, kMessageLimits, error);
}

/// The one object's value; a null value when it is refused.
Value readSingle(const std::string& object) {
  return read(binaryPropertyList({object})).value_or(Value());
}

// ---- What is accepted ----

TEST(BinaryReader, ReadsEachScalar) {
  EXPECT_TRUE(Value::identical(readSingle("\x08"), false));
  EXPECT_TRUE(Value::identical(readSingle("\x09"), true));
  EXPECT_TRUE(Value::identical(readSingle("\x10\xFF"), 255));
  EXPECT_TRUE(Value::identical(readSingle("\x11\xFF\xFE"), 65534));
  EXPECT_TRUE(Value::identical(readSingle("\x12\xFF\xFF\xFF\xFF"), 4294967295));
  EXPECT_TRUE(Value::identical(readSingle("\x13" + bigEndian(kHuge, 8)), -1));
  EXPECT_TRUE(Value::identical(readSingle("\x14" + bigEndian(kHuge, 16)), UINT64_MAX));
  EXPECT_TRUE(Value::identical(readSingle("\x14" + bigEndian(5, 16)), 5));
  EXPECT_TRUE(Value::identical(readSingle("\x22" + bigEndian(0x3FC00000, 4)), 1.5));
  EXPECT_TRUE(Value::identical(readSingle(real(-0.0)), -0.0));
  EXPECT_TRUE(Value::identical(readSingle(real(std::nan(""))), std::nan("")));
  EXPECT_TRUE(Value::identical(readSingle(date(1.25)), Date{1.25}));
  EXPECT_TRUE(Value::identical(readSingle(date(1e300)), Date{1e300}));
  EXPECT_TRUE(Value::identical(readSingle(head(0x40, 3) + std::string("a\0b", 3)),
                               Data{std::string("a\0b", 3)}));
  EXPECT_TRUE(
      Value::identical(readSingle(ascii(std::string("a\0b", 3))), Text(std::string("a\0b", 3))));
  EXPECT_TRUE(Value::identical(readSingle(byte(0x50)), ""));
  EXPECT_TRUE(Value::identical(readSingle(byte(0x60)), ""));
  EXPECT_TRUE(Value::identical(readSingle(byte(0x40)), Data{}));
  EXPECT_TRUE(Value::identical(readSingle(byte(0xA0)), Array{}));
  EXPECT_TRUE(Value::identical(readSingle(byte(0xD0)), Dictionary{}));
}

TEST(BinaryReader, TurnsUtf16IntoUtf8AndKeepsLoneSurrogates) {
  EXPECT_EQ(readSingle(utf16({'a', 0xE9, 0x20AC})), Value("a\xC3\xA9\xE2\x82\xAC"));
  EXPECT_EQ(readSingle(utf16({0xD83D, 0xDE00})), Value("\xF0\x9F\x98\x80"));
  EXPECT_EQ(readSingle(utf16({0xDBFF, 0xDFFF})), Value("\xF4\x8F\xBF\xBF"));
  EXPECT_EQ(readSingle(utf16({0xD83D})), Value("\xED\xA0\xBD"));
  EXPECT_EQ(readSingle(utf16({0xDE00, 0xD83D})), Value("\xED\xB8\x80\xED\xA0\xBD"));
  EXPECT_EQ(readSingle(utf16({0xD83D, 0xD83D, 0xDE00})), Value("\xED\xA0\xBD\xF0\x9F\x98\x80"));
  EXPECT_EQ(readSingle(utf16({0xD83D, 'x'})), Value("\xED\xA0\xBDx"));
  EXPECT_EQ(readSingle(utf16({0, 0xFFFF})), Value(std::string("\0\xEF\xBF\xBF", 4)));
}

TEST(BinaryReader, TakesEveryOffsetAndReferenceSize) {
  for (unsigned offsetSize = 1; offsetSize <= 8; ++offsetSize) {
    for (unsigned referenceSize = 1; referenceSize <= 8; ++referenceSize) {
      const std::string bytes =
          binaryPropertyList({container(0xD0, {1, 2}, referenceSize), ascii("k"),
                              container(0xA0, {1, 3}, referenceSize), byte(0x09)},
                             {.offsetSize = offsetSize, .referenceSize = referenceSize});
      EXPECT_EQ(read(bytes), Value(Dictionary{{"k", Array{"k", true}}}))
          << offsetSize << ", " << referenceSize;
    }
  }
}

TEST(BinaryReader, TakesAnyRootAnywhere) {
  EXPECT_EQ(read(binaryPropertyList({byte(0x09), ascii("root")}, {.root = 1})), Value("root"));
  EXPECT_EQ(read(binaryPropertyList({byte(0x08), array({0, 0})}, {.root = 1})),
            Value(Array{false, false}));
}

TEST(BinaryReader, LooksAtNothingThatTheRootDoesNotReach) {
  const std::string bytes = binaryPropertyList({ascii("root"), byte(0xFF), dictionary({9, 9})});
  EXPECT_EQ(read(bytes), Value("root"));
}

TEST(BinaryReader, PutsKeysInOrderAndKeepsTheLastOfEqualOnes) {
  const std::string bytes = binaryPropertyList(
      {dictionary({1, 2, 3, 4, 5, 6, 7, 8}), ascii("b"), ascii("a"), utf16({'a'}), ascii("b"),
       byte(0x08), byte(0x09), byte(0x10) + "\x07", byte(0x10) + "\x08"});
  EXPECT_EQ(read(bytes), Value(Dictionary{{"a", 7}, {"b", 8}})) << describe(*read(bytes));
}

TEST(BinaryReader, KeepsSharedObjectsShared) {
  const std::string bytes =
      binaryPropertyList({array({1, 1, 3, 2}), array({2}), ascii("shared"), dictionary({2, 1})});
  const Array root = *read(bytes)->asArray();
  EXPECT_EQ(root[0].identity(), root[1].identity());
  EXPECT_EQ(root[2]["shared"].identity(), root[0].identity());
  EXPECT_EQ(root[3].identity(), (*root[0].asArray())[0].identity());
  EXPECT_EQ(root[2].asDictionary()->begin()->key.identity(), root[3].identity());
}

// ---- What is refused ----

struct Hostile {
  const char* what;
  std::string bytes;
  PropertyListError code = PropertyListError::kDamaged;
};

std::vector<Hostile> hostileFiles() {
  const std::string good = binaryPropertyList({array({1}), ascii("abc")});
  std::vector<Hostile> files = {
      {"seven bytes", "bplist0"},
      {"a header alone", "bplist00"},
      {"a header and half a trailer", "bplist00" + std::string(20, '\0')},
      {"nothing but zeros behind the header", "bplist00" + std::string(200, '\0')},
      {"nothing but ones behind the header", "bplist00" + std::string(200, '\xFF')},
      {"another version", binaryPropertyList({byte(0x09)}, {.header = "bplist15"})},
      {"no trailer", good.substr(0, good.size() - 32)},
      {"a trailer cut short", good.substr(0, good.size() - 1)},
      {"a byte behind the trailer", good + "x"},
      {"offset size 0", binaryPropertyList({byte(0x09)}, {.offsetSize = 0})},
      {"offset size 9", binaryPropertyList({byte(0x09)}, {.offsetSize = 9})},
      {"offset size 255", binaryPropertyList({byte(0x09)}, {.offsetSize = 255})},
      {"reference size 0", binaryPropertyList({array({0})}, {.referenceSize = 0})},
      {"reference size 9", binaryPropertyList({byte(0x09)}, {.referenceSize = 9})},
      {"reference size 128", binaryPropertyList({byte(0x09)}, {.referenceSize = 128})},
      {"no objects", binaryPropertyList({}, {.objectCount = 0})},
      {"no objects, but a root", binaryPropertyList({byte(0x09)}, {.objectCount = 0})},
      {"one object more than the table holds",
       binaryPropertyList({byte(0x09)}, {.objectCount = 2})},
      {"2^32 objects", binaryPropertyList({byte(0x09)}, {.objectCount = 1ULL << 32})},
      {"2^63 objects", binaryPropertyList({byte(0x09)}, {.objectCount = 1ULL << 63})},
      {"2^64 - 1 objects", binaryPropertyList({byte(0x09)}, {.objectCount = kHuge})},
      {"count times size wraps to 4",
       binaryPropertyList({byte(0x09)}, {.objectCount = (1ULL << 62) + 1})},
      {"count times size wraps to 0",
       binaryPropertyList({byte(0x09)}, {.offsetSize = 8, .objectCount = 1ULL << 61})},
      {"the root past the last object", binaryPropertyList({byte(0x09)}, {.root = 1})},
      {"the root at 2^64 - 1", binaryPropertyList({byte(0x09)}, {.root = kHuge})},
      {"the table at 0", binaryPropertyList({byte(0x09)}, {.tableOffset = 0})},
      {"the table in the header", binaryPropertyList({byte(0x09)}, {.tableOffset = 7})},
      {"the table right behind the header", binaryPropertyList({byte(0x09)}, {.tableOffset = 8})},
      {"the table in the trailer", binaryPropertyList({byte(0x09)}, {.tableOffset = 14})},
      {"the table past the end", binaryPropertyList({byte(0x09)}, {.tableOffset = 4096})},
      {"the table at 2^64 - 1", binaryPropertyList({byte(0x09)}, {.tableOffset = kHuge})},
      {"the table at 2^64 - 4", binaryPropertyList({byte(0x09)}, {.tableOffset = kHuge - 3})},
      {"an object in the header", binaryPropertyList({byte(0x09)}, {.offsets = {{0}}})},
      {"an object at the header's last byte", binaryPropertyList({byte(0x09)}, {.offsets = {{7}}})},
      {"an object in the table", binaryPropertyList({byte(0x09)}, {.offsets = {{9}}})},
      {"an object in the trailer", binaryPropertyList({byte(0x09)}, {.offsets = {{20}}})},
      {"an object past the end", binaryPropertyList({byte(0x09)}, {.offsets = {{5000}}})},
      {"an object at 2^64 - 1",
       binaryPropertyList({byte(0x09)}, {.offsetSize = 8, .offsets = {{kHuge}}})},
      {"an array in itself", binaryPropertyList({array({0})})},
      {"an array in its member", binaryPropertyList({array({1}), array({0})})},
      {"a cycle below the root",
       binaryPropertyList({array({1}), array({2}), dictionary({3, 1}), ascii("k")})},
      {"a dictionary as its own value", binaryPropertyList({dictionary({1, 0}), ascii("k")})},
      {"a dictionary as its own key", binaryPropertyList({dictionary({0, 1}), ascii("k")})},
      {"a reference past the last object", binaryPropertyList({array({1})})},
      {"a reference of 2^64 - 1",
       binaryPropertyList({container(0xA0, {kHuge}, 8)}, {.referenceSize = 8})},
      {"a key past the last object", binaryPropertyList({dictionary({9, 0})})},
      {"a value past the last object", binaryPropertyList({dictionary({1, 9}), ascii("k")})},
      {"an array longer than the file", binaryPropertyList({head(0xA0, 1000)})},
      {"an array of 2^31 members", binaryPropertyList({head(0xA0, 1ULL << 31)})},
      {"an array of 2^64 - 1 members", binaryPropertyList({head(0xA0, kHuge)})},
      {"an array one member longer than the objects",
       binaryPropertyList({head(0xA0, 2) + byte(0)})},
      {"members whose sizes wrap to 0",
       binaryPropertyList({head(0xA0, 1ULL << 61)}, {.referenceSize = 8})},
      {"a dictionary of 2^63 members", binaryPropertyList({head(0xD0, 1ULL << 63)})},
      {"a dictionary whose sizes wrap to 0",
       binaryPropertyList({head(0xD0, 1ULL << 60)}, {.referenceSize = 8})},
      {"a dictionary that lacks its values",
       binaryPropertyList({head(0xD0, 1) + byte(1), ascii("")}, {.offsets = {{8, 9}}})},
      {"a text longer than the file", binaryPropertyList({head(0x50, 200) + "abc"})},
      {"a text of 2^64 - 1 bytes", binaryPropertyList({head(0x50, kHuge) + "abc"})},
      {"a text into the table", binaryPropertyList({byte(0x54) + "abc"})},
      {"UTF-16 of an odd number of bytes", binaryPropertyList({byte(0x62) + "abc"})},
      {"UTF-16 of 2^63 units", binaryPropertyList({head(0x60, 1ULL << 63)})},
      {"data longer than the file", binaryPropertyList({head(0x40, 200)})},
      {"data of 2^32 bytes", binaryPropertyList({head(0x40, 1ULL << 32) + "abc"})},
      {"ASCII above 127", binaryPropertyList({ascii("caf\xC3\xA9")})},
      {"ASCII of all ones", binaryPropertyList({ascii("\xFF")})},
      {"a key above 127", binaryPropertyList({dictionary({1, 1}), ascii("\x80")})},
      {"a count that is a text", binaryPropertyList({byte(0xAF) + ascii("1")})},
      {"a count that is a boolean", binaryPropertyList({byte(0x5F) + byte(0x09)})},
      {"a count of 16 bytes", binaryPropertyList({byte(0x5F) + byte(0x14) + bigEndian(0, 16)})},
      {"a count of 32 kB", binaryPropertyList({byte(0x5F) + byte(0x1F) + bigEndian(0, 16)})},
      {"a count that is missing", binaryPropertyList({byte(0x5F)})},
      {"a count cut short", binaryPropertyList({byte(0x5F) + byte(0x13) + bigEndian(0, 7)})},
      {"an integer cut short", binaryPropertyList({byte(0x13) + bigEndian(0, 7)})},
      {"an integer without its byte", binaryPropertyList({byte(0x10)})},
      {"an integer of 32 bytes", binaryPropertyList({byte(0x15) + std::string(32, '\0')})},
      {"an integer of 2^15 bytes", binaryPropertyList({byte(0x1F) + std::string(100, '\0')})},
      {"an integer of 16 bytes cut short", binaryPropertyList({byte(0x14) + bigEndian(0, 15)})},
      {"a real of one byte", binaryPropertyList({byte(0x20) + byte(0)})},
      {"a real of two bytes", binaryPropertyList({byte(0x21) + bigEndian(0, 2)})},
      {"a real of 16 bytes", binaryPropertyList({byte(0x24) + bigEndian(0, 16)})},
      {"a real of 2^15 bytes", binaryPropertyList({byte(0x2F) + bigEndian(0, 16)})},
      {"a real cut short", binaryPropertyList({byte(0x23) + bigEndian(0, 7)})},
      {"a float cut short", binaryPropertyList({byte(0x22) + bigEndian(0, 3)})},
      {"a date of four bytes", binaryPropertyList({byte(0x32) + bigEndian(0, 4)})},
      {"a date of one byte", binaryPropertyList({byte(0x30) + byte(0)})},
      {"a date cut short", binaryPropertyList({byte(0x33) + bigEndian(0, 7)})},
      {"a key that is a number", binaryPropertyList({dictionary({1, 1}), byte(0x10) + byte(1)})},
      {"a key that is a boolean", binaryPropertyList({dictionary({1, 1}), byte(0x09)})},
      {"a key that is data", binaryPropertyList({dictionary({1, 1}), head(0x40, 1) + "k"})},
      {"a key that is a date", binaryPropertyList({dictionary({1, 1}), date(0)})},
      {"a key that is an array", binaryPropertyList({dictionary({1, 1}), byte(0xA0)})},
      {"a key that is a dictionary", binaryPropertyList({dictionary({1, 1}), byte(0xD0)})},
      {"a key that was read as data before",
       binaryPropertyList({array({2, 1}), dictionary({2, 2}), head(0x40, 1) + "k"})},
      {"a fill byte", binaryPropertyList({byte(0x0F)})},
      {"an unknown single", binaryPropertyList({byte(0x01)})},
      {"a URL", binaryPropertyList({byte(0x0C) + ascii("x")})},
      {"a UUID", binaryPropertyList({byte(0x0E) + std::string(16, 'u')})},
      {"a text of an unknown kind", binaryPropertyList({byte(0x71) + "x"})},
      {"an unknown kind 9", binaryPropertyList({byte(0x91) + "x"})},
      {"an unknown kind E", binaryPropertyList({byte(0xE1) + "x"})},
      {"an unknown kind F", binaryPropertyList({byte(0xF1) + "x"})},
      {"two texts in the same bytes",
       binaryPropertyList({array({1, 2}), ascii("abcdefgh")}, {.offsets = {{8, 11, 11}}})},
      {"an array in another's references",
       binaryPropertyList({array({1, 2}), std::string("\xA1\xA1\x02\x09", 4)},
                          {.offsets = {{8, 11, 12, 12}}})},
      {"a null", binaryPropertyList({byte(0x00)}), PropertyListError::kUnsupported},
      {"a null in an array", binaryPropertyList({array({1}), byte(0x00)}),
       PropertyListError::kUnsupported},
      {"an archiver's reference", binaryPropertyList({byte(0x80) + byte(1)}),
       PropertyListError::kUnsupported},
      {"a set", binaryPropertyList({byte(0xC0)}), PropertyListError::kUnsupported},
      {"an ordered set", binaryPropertyList({byte(0xB1) + byte(0)}),
       PropertyListError::kUnsupported},
      {"an integer of 65 bits",
       binaryPropertyList({byte(0x14) + bigEndian(1, 8) + bigEndian(0, 8)}),
       PropertyListError::kUnsupported},
      {"a negative integer of 128 bits", binaryPropertyList({byte(0x14) + std::string(16, '\xFF')}),
       PropertyListError::kUnsupported},
      {"a date that is NaN", binaryPropertyList({date(std::nan(""))}),
       PropertyListError::kUnsupported},
      {"a date that is infinite",
       binaryPropertyList({date(std::numeric_limits<double>::infinity())}),
       PropertyListError::kUnsupported},
      {"a date that is minus infinite",
       binaryPropertyList({date(-std::numeric_limits<double>::infinity())}),
       PropertyListError::kUnsupported},
  };
  return files;
}

TEST(BinaryReader, RefusesEachHostileFileAndSaysWhatAndWhere) {
  const std::vector<Hostile> files = hostileFiles();
  EXPECT_GE(files.size(), 100U);
  for (const Hostile& file : files) {
    SCOPED_TRACE(file.what);
    Error error;
    EXPECT_FALSE(readBinaryPropertyList(file.bytes, kMessageLimits, &error).has_value());
    EXPECT_EQ(error.domain, kPropertyListErrorDomain);
    EXPECT_EQ(error.code, static_cast<std::int64_t>(file.code)) << error.text();
    EXPECT_NE(error.description.find(" at byte "), std::string::npos) << error.text();
    EXPECT_FALSE(read(file.bytes).has_value());
  }
  RecordProperty("bad_inputs", static_cast<int>(files.size()));
}

TEST(BinaryReader, RefusesAFileCutShortAnywhere) {
  const std::string good = binaryPropertyList(
      {dictionary({1, 2, 3, 4}), ascii("a"), utf16({'b', 'c'}), array({1, 2}), real(1)});
  ASSERT_TRUE(read(good).has_value());
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(readBinaryPropertyList(std::string(good, 0, size), kMessageLimits).has_value())
        << size;
  }
  RecordProperty("bad_inputs", static_cast<int>(good.size()));
}

// ---- Limits ----

std::string nestedArrays(std::size_t depth) {
  std::vector<std::string> objects;
  for (std::size_t i = 0; i + 1 < depth; ++i) objects.push_back(container(0xA0, {i + 1}, 4));
  objects.push_back(byte(0x09));
  return binaryPropertyList(objects, {.referenceSize = 4});
}

std::string nestedDictionaries(std::size_t depth) {
  std::vector<std::string> objects;
  for (std::size_t i = 0; i + 1 < depth; ++i) objects.push_back(container(0xD0, {depth, i + 1}, 4));
  objects.push_back(byte(0x09));
  objects.push_back(ascii("k"));
  return binaryPropertyList(objects, {.referenceSize = 4});
}

TEST(BinaryReader, BoundsTheDepth) {
  for (const auto& nested : {nestedArrays, nestedDictionaries}) {
    EXPECT_TRUE(read(nested(512)).has_value());
    Error error;
    EXPECT_FALSE(read(nested(513), &error).has_value());
    EXPECT_EQ(error.code, static_cast<std::int64_t>(PropertyListError::kTooLarge));
    EXPECT_FALSE(read(nested(50'000)).has_value());
  }
  const PropertyListLimits scalarsOnly{1000, 1000, 1};
  EXPECT_TRUE(readPropertyList(binaryPropertyList({byte(0x09)}), scalarsOnly).has_value());
  EXPECT_TRUE(readPropertyList(binaryPropertyList({byte(0xA0)}), scalarsOnly).has_value());
  EXPECT_FALSE(
      readPropertyList(binaryPropertyList({array({1}), byte(0x09)}), scalarsOnly).has_value());
  EXPECT_FALSE(readPropertyList(binaryPropertyList({dictionary({1, 1}), ascii("k")}), scalarsOnly)
                   .has_value());
}

TEST(BinaryReader, BoundsTheDepthThroughSharedObjects) {
  // The deep array is read first, high up, and then referred to from further down.
  std::vector<std::string> objects = {array({1, 4}), array({2}), array({3}),
                                      byte(0x09),    array({5}), array({1})};
  const std::string bytes = binaryPropertyList(objects);
  EXPECT_TRUE(readPropertyList(bytes, {1000, 1000, 6}).has_value());
  EXPECT_FALSE(readPropertyList(bytes, {1000, 1000, 5}).has_value());
}

TEST(BinaryReader, CountsNodesAfterExpansionKeysIncluded) {
  const std::string shared = binaryPropertyList({array({1, 1, 1}), array({2, 2}), byte(0x09)});
  EXPECT_TRUE(readPropertyList(shared, {1000, 10, 512}).has_value());
  EXPECT_FALSE(readPropertyList(shared, {1000, 9, 512}).has_value());
  const std::string keyed = binaryPropertyList({dictionary({1, 2, 1, 1}), ascii("a"), ascii("b")});
  EXPECT_TRUE(readPropertyList(keyed, {1000, 5, 512}).has_value());
  EXPECT_FALSE(readPropertyList(keyed, {1000, 4, 512}).has_value());
}

TEST(BinaryReader, CountsWhatTheFileSaysBeforeItMakesRoom) {
  const auto codeOf = [](const std::string& bytes, std::size_t nodes) {
    Error error;
    EXPECT_FALSE(readPropertyList(bytes, {1000, nodes, 512}, &error).has_value());
    return error.code;
  };
  const auto tooLarge = static_cast<std::int64_t>(PropertyListError::kTooLarge);
  EXPECT_EQ(codeOf(binaryPropertyList({array({1}), ascii("a")}), 1), tooLarge);
  EXPECT_EQ(codeOf(binaryPropertyList({array({1, 1, 1, 1}), byte(0x09)}), 3), tooLarge);
}

TEST(BinaryReader, BoundsTheBytes) {
  const std::string bytes = binaryPropertyList({byte(0x09)});
  EXPECT_TRUE(readPropertyList(bytes, {bytes.size(), 10, 10}).has_value());
  EXPECT_FALSE(readPropertyList(bytes, {bytes.size() - 1, 10, 10}).has_value());
}

TEST(BinaryReader, EndsOnABombOfSharedReferences) {
  for (std::size_t levels : {22U, 100U, 250U}) {
    std::vector<std::string> objects;
    for (std::size_t i = 0; i < levels; ++i) objects.push_back(array({i + 1, i + 1}));
    objects.push_back(byte(0x09));
    Error error;
    EXPECT_FALSE(read(binaryPropertyList(objects), &error).has_value());
    EXPECT_EQ(error.code, static_cast<std::int64_t>(PropertyListError::kTooLarge));
  }
}

}  // namespace
}  // namespace thmp
