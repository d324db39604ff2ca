// SPDX-License-Identifier: Apache-2.0
#include "host/index/SubjectColumn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "host/index/message_record.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<Row> rowsOf(const RowSet& rows) {
  std::vector<Row> all;
  rows.forEachDescending([&](Row row) {
    all.insert(all.begin(), row);
    return true;
  });
  return all;
}

SubjectColumn columnOf(const std::map<Row, std::string>& subjects, Row end) {
  SubjectColumn column;
  for (const auto& [row, subject] : subjects) {
    column.growTo(row + 1);
    EXPECT_TRUE(column.add(row, subject));
  }
  column.growTo(end);
  return column;
}

std::string bytesOf(const SubjectColumn& column) {
  ByteWriter out;
  column.write(out);
  return std::move(out).bytes();
}

TEST(SubjectColumn, FindsTheRowsOfASubjectAndOfItsParts) {
  const SubjectColumn column =
      columnOf({{1, "lunch"}, {3, "re: lunch"}, {4, "lunch"}, {6, ""}, {7, "dinner"}}, 9);
  EXPECT_THAT(rowsOf(column.rowsWith("lunch")), ElementsAre(1, 3, 4));
  EXPECT_THAT(rowsOf(column.rowsWith("re:")), ElementsAre(3));
  EXPECT_THAT(rowsOf(column.rowsWith("n")), ElementsAre(1, 3, 4, 7));
  EXPECT_THAT(rowsOf(column.rowsWith("")), ElementsAre(1, 3, 4, 6, 7));
  EXPECT_THAT(rowsOf(column.rowsWith("lunchre")), IsEmpty());
  EXPECT_THAT(rowsOf(column.rowsWith("lunch\nre")), IsEmpty());
  EXPECT_THAT(rowsOf(SubjectColumn().rowsWith("")), IsEmpty());
}

TEST(SubjectColumn, TakesNoSubjectOfSeveralLines) {
  SubjectColumn column;
  column.growTo(2);
  EXPECT_FALSE(column.add(1, "two\nlines"));
  EXPECT_THAT(rowsOf(column.rowsWith("")), IsEmpty());
}

TEST(SubjectColumn, KeepsEachSubjectOnce) {
  std::map<Row, std::string> thread;
  for (Row row = 0; row < 1000; ++row) thread[row] = "re: " + std::string(1000, 'x');
  EXPECT_LT(bytesOf(columnOf(thread, 1000)).size(), 6'000U);
}

TEST(SubjectColumn, ManySubjectsForOnePlaceAreAllFound) {
  std::vector<std::string> crowd;
  for (int i = 0; crowd.size() < 40; ++i) {
    std::string subject = "subject " + std::to_string(i) + ".";
    if (fingerprint(subject) % 128 == 0) crowd.push_back(std::move(subject));
  }
  SubjectColumn column;
  for (Row row = 0; row < 80; ++row) {
    column.growTo(row + 1);
    EXPECT_TRUE(column.add(row, crowd[row % 40]));
  }
  const std::string bytes = bytesOf(column);
  ByteReader in(bytes);
  SubjectColumn readBack;
  ASSERT_TRUE(readBack.read(in, 80));
  for (Row row = 0; row < 40; ++row) {
    EXPECT_THAT(rowsOf(column.rowsWith(crowd[row])), ElementsAre(row, row + 40));
    EXPECT_THAT(rowsOf(readBack.rowsWith(crowd[row])), ElementsAre(row, row + 40));
  }
}

TEST(SubjectColumn, FindsWhatPlainTextsDoAlsoOnceItIsReadBack) {
  std::mt19937 random(7);
  std::map<Row, std::string> plain;
  SubjectColumn column;
  for (Row row = 0; row < 3000; ++row) {
    column.growTo(row + 1);
    if (row == 1500) {
      const std::string bytes = bytesOf(column);
      ByteReader in(bytes);
      column = SubjectColumn();
      ASSERT_TRUE(column.read(in, row + 1));
      EXPECT_TRUE(in.atEnd());
    }
    if (random() % 5 == 0) continue;
    std::string subject;
    for (auto length = random() % 6; length > 0; --length) {
      subject += static_cast<char>('a' + random() % 4);
    }
    EXPECT_TRUE(column.add(row, subject));
    plain[row] = subject;
  }
  for (const std::string needle : {"", "a", "bc", "dd", "abcd", "aaaaa", "e"}) {
    std::vector<Row> expected;
    for (const auto& [row, subject] : plain) {
      if (subject.find(needle) != std::string::npos) expected.push_back(row);
    }
    EXPECT_EQ(rowsOf(column.rowsWith(needle)), expected) << needle;
  }
}

TEST(SubjectColumn, BytesThatAreNoSubjectsOfTheRowsAreRefused) {
  const auto reads = [](const std::string& texts, const std::vector<std::uint32_t>& numbers) {
    ByteWriter out;
    out.put(texts);
    out.put(numbers);
    ByteReader in(out.bytes());
    return SubjectColumn().read(in, 2);
  };
  EXPECT_TRUE(reads("one\ntwo\n", {2, 0}));
  EXPECT_TRUE(reads("", {0, 0}));
  EXPECT_FALSE(reads("one\ntwo\n", {2, 3})) << "no such text";
  EXPECT_FALSE(reads("one\ntwo", {2, 0})) << "a text without an end";
  EXPECT_FALSE(reads("one\n", {1})) << "a row is missing";
  EXPECT_FALSE(reads("one\n", {1, 1, 1})) << "a row too many";
  const std::string whole = bytesOf(columnOf({{0, "one"}}, 2));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const std::string part = whole.substr(0, size);
    ByteReader in(part);
    EXPECT_FALSE(SubjectColumn().read(in, 2)) << size;
  }
}

}  // namespace
}  // namespace thmp
