// SPDX-License-Identifier: Apache-2.0
#include "host/query/dump.h"

#include <gtest/gtest.h>

#include "host/query/query_testing.h"

namespace thmp::query {
namespace {

TEST(QueryDump, TokensTellPlaceKindAndSource) {
  EXPECT_EQ(dumpTokens("!(a[c] >= 'x'w, b) && c||d"),
            "0 not !\n"
            "1 group opens (\n"
            "2 word a\n"
            "3 bracket opens [\n"
            "4 word c\n"
            "5 bracket closes ]\n"
            "7 greater or equal >=\n"
            "10 string 'x'\n"
            "13 word w\n"
            "14 comma ,\n"
            "16 word b\n"
            "17 group closes )\n"
            "19 and &&\n"
            "22 word c\n"
            "23 or ||\n"
            "25 word d\n");
}

TEST(QueryDump, TokensEndWithTheErrorOfATextThatHasOne) {
  EXPECT_EQ(dumpTokens("a & b"), "0 word a\n2 a single & means nothing\n");
}

TEST(QueryDump, TheTreeHasOneNodeALine) {
  EXPECT_EQ(treeOf("subject == \"a*\"cd && !(InRange(kMDItemFSSize, 1, 2) || false)"),
            "and\n"
            "  kMDItemSubject == \"a*\" [cd]\n"
            "  not\n"
            "    or\n"
            "      InRange kMDItemFSSize 1 2\n"
            "      false\n");
}

TEST(QueryDump, LineBreaksInAStringStayOnTheirLine) {
  EXPECT_EQ(treeOf("a == \"x\ny\x1B\""), "a == \"x\\u{0A}y\\u{1B}\"\n");
}

TEST(QueryDump, TimesAreShownWithWhatTheyCameTo) {
  EXPECT_EQ(treeOf("a == $time.yesterday"),
            "a == $time.yesterday (2024-03-12T00:00:00Z up to 2024-03-13T00:00:00Z)\n");
}

TEST(QueryDump, BothStagesStandUnderTheirNames) {
  EXPECT_EQ(dump(*parsed("a=1")),
            "tokens\n"
            "  0 word a\n"
            "  1 equal =\n"
            "  2 word 1\n"
            "tree\n"
            "  a == 1\n");
}

}  // namespace
}  // namespace thmp::query
