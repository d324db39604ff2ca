// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a binary property list. What the reader takes, the writer writes, and reading that
// gives the identical value; a second writing gives the same bytes, so that the encoding is
// settled. The reader that tells the encodings apart agrees with the one for this encoding.
#include <string>

#include "base/plist.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

void parseOnce(std::string_view bytes) { readBinaryPropertyList(bytes, kMessageLimits); }

}  // namespace

const Bounds kBounds{1, 64 * kMiB, parseOnce};

void runInput(std::string_view bytes) {
  Error error;
  const auto value = readBinaryPropertyList(bytes, kMessageLimits, &error);
  THMP_FUZZ_CHECK(value.has_value() != error.isSet());
  if (bytes.starts_with("bplist")) {
    const auto either = readPropertyList(bytes, kMessageLimits);
    THMP_FUZZ_CHECK(either.has_value() == value.has_value());
    THMP_FUZZ_CHECK(!value || Value::identical(*either, *value));
  }
  if (!value) return;

  const Value copy = *value;
  THMP_FUZZ_CHECK(copy == *value);
  const auto written = writeBinaryPropertyList(*value);
  THMP_FUZZ_CHECK(written.has_value());
  // The same limits would do but for what is shared here in another way than there.
  const auto again = readBinaryPropertyList(*written, kBatchLimits);
  THMP_FUZZ_CHECK(again.has_value());
  THMP_FUZZ_CHECK(Value::identical(*again, *value));
  THMP_FUZZ_CHECK(writeBinaryPropertyList(*again) == written);
}

}  // namespace thmp::fuzz
