// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as a binary property list. What the reader takes, the writer writes, and reading that
// gives the identical value; a second writing gives the same bytes, so that the encoding is
// settled. The reader that tells the encodings apart agrees with the one for this encoding, and the
// JSON that is made from the bytes with the one that is made from the value.
#include <string>

#include "base/PropertyListView.h"
#include "base/plist.h"
#include "console/PropertyListJson.h"
#include "console/json_text.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

void parseOnce(std::string_view bytes) { readBinaryPropertyList(bytes, kMessageLimits); }

void compareJson(std::string_view bytes, const Value& value) {
  // Texts are written as often as they are referred to.
  constexpr PropertyListLimits kFew{4096, 1000, 512};
  const auto list = PropertyListView::open(bytes, kFew);
  if (!list) return;
  fmt::memory_buffer json;
  console::PropertyListJson(*list).append(list->root(), json);
  fmt::memory_buffer valuesJson;
  console::appendJson(value, valuesJson);
  THMP_FUZZ_CHECK(fmt::to_string(json) == fmt::to_string(valuesJson));
}

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
  compareJson(bytes, *value);

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
