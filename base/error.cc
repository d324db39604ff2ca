// SPDX-License-Identifier: Apache-2.0
#include "base/error.h"

#include <cerrno>
#include <system_error>
#include <utility>

namespace thmp {

std::string Error::text() const {
  std::string text;
  std::size_t depth = 0;
  for (const Error* error = this; error != nullptr; error = error->underlying.get()) {
    if (error != this) {
      text += " (";
      ++depth;
    }
    text += "Error Domain=" + error->domain + " Code=" + std::to_string(error->code) + " \"" +
            error->description + "\"";
  }
  text.append(depth, ')');
  return text;
}

Error Error::posix(int errorNumber, std::string_view what) {
  Error error;
  error.domain = kPosixErrorDomain;
  error.code = errorNumber;
  error.description = std::string(what) + ": " + std::generic_category().message(errorNumber);
  return error;
}

Error Error::fileRead(int errorNumber, std::string_view what) {
  Error error = posix(errorNumber, what);
  error.underlying = std::make_shared<Error>(error);
  error.domain = kFileErrorDomain;
  switch (errorNumber) {
    case EPERM:
    case EACCES:
      error.code = 257;
      break;
    case ENOENT:
      error.code = 260;
      break;
    default:
      error.code = 256;
  }
  return error;
}

bool operator==(const Error& a, const Error& b) {
  const Error* left = &a;
  const Error* right = &b;
  while (left != nullptr && right != nullptr && left != right) {
    if (left->domain != right->domain || left->code != right->code ||
        left->description != right->description) {
      return false;
    }
    left = left->underlying.get();
    right = right->underlying.get();
  }
  return left == right;
}

bool fail(Error* error, Error value) {
  if (error != nullptr) *error = std::move(value);
  return false;
}

}  // namespace thmp
