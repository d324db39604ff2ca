// SPDX-License-Identifier: Apache-2.0
//
// The one lock under which GMime is used, and owners for what it hands out. GMime and the GLib
// below it share caches between threads; one user at a time is enough for the disk to be the limit.
#pragma once

#include <gmime/gmime.h>

#include <cstdint>
#include <memory>

#include "base/mutex.h"

namespace thmp {

/// Holds GMime for its scope; the library is made ready by the first.
class GMimeUse {
 public:
  GMimeUse();
  ~GMimeUse();
  GMimeUse(const GMimeUse&) = delete;
  GMimeUse& operator=(const GMimeUse&) = delete;

  /// Another for each use. REQUIRES: a GMimeUse.
  static std::uint64_t number();
};

struct GObjectUnref {
  void operator()(void* object) const noexcept { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct GFree {
  void operator()(char* text) const noexcept { g_free(text); }
};
using GText = std::unique_ptr<char, GFree>;

/// Lenient, with UTF-8 and then Windows-1252 for text that does not say its charset. REQUIRES: a
/// GMimeUse.
GMimeParserOptions* mimeOptions();

}  // namespace thmp
