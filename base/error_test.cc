// SPDX-License-Identifier: Apache-2.0
#include "base/error.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace thmp {
namespace {

TEST(Errors, ShowDomainCodeDescriptionAndWhatIsUnderneath) {
  Error error{"D", -7, "no \"luck\"", nullptr};
  EXPECT_EQ(error.text(), "Error Domain=D Code=-7 \"no \"luck\"\"");
  const Error middle{"M", 2, "middle", std::make_shared<Error>(error)};
  const Error outer{"O", 1, "outer", std::make_shared<Error>(middle)};
  EXPECT_EQ(outer.text(),
            "Error Domain=O Code=1 \"outer\" (Error Domain=M Code=2 \"middle\" (Error Domain=D "
            "Code=-7 \"no \"luck\"\"))");
}

TEST(Errors, OfTheSystemCarryItsNumberAndWords) {
  const Error error = Error::posix(ENOENT, "Could not open /x");
  EXPECT_EQ(error.domain, kPosixErrorDomain);
  EXPECT_EQ(error.code, ENOENT);
  EXPECT_EQ(error.description, "Could not open /x: No such file or directory");
  EXPECT_TRUE(error.isSet());
  EXPECT_FALSE(Error().isSet());
}

TEST(Errors, OfAReadHaveTheSystemsErrorUnderneath) {
  const Error error = Error::fileRead(EPERM, "Could not list /x");
  EXPECT_EQ(error.domain, "NSCocoaErrorDomain");
  EXPECT_EQ(error.code, 257);
  EXPECT_EQ(*error.underlying, Error::posix(EPERM, "Could not list /x"));
  EXPECT_EQ(Error::fileRead(EACCES, "").code, 257);
  EXPECT_EQ(Error::fileRead(ENOENT, "").code, 260);
  EXPECT_EQ(Error::fileRead(EIO, "").code, 256);
}

TEST(Errors, AreEqualWithEqualErrorsUnderneath) {
  const Error a{"D", 1, "a", std::make_shared<Error>(Error{"U", 2, "u", nullptr})};
  Error b{"D", 1, "a", std::make_shared<Error>(Error{"U", 2, "u", nullptr})};
  EXPECT_EQ(a, b);
  b.underlying = std::make_shared<Error>(Error{"U", 3, "u", nullptr});
  EXPECT_FALSE(a == b);
  b.underlying = nullptr;
  EXPECT_FALSE(a == b);
  EXPECT_EQ(Error(), Error());
}

TEST(Errors, AreStoredOnlyWhereTheCallerAsks) {
  Error error;
  EXPECT_FALSE(fail(&error, Error{"D", 1, "x", nullptr}));
  EXPECT_EQ(error.code, 1);
  EXPECT_FALSE(fail(nullptr, Error{"D", 1, "x", nullptr}));
}

}  // namespace
}  // namespace thmp
