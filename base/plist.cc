// SPDX-License-Identifier: Apache-2.0
#include "base/plist.h"

namespace thmp {

std::optional<Value> readPropertyList(std::string_view bytes, const PropertyListLimits& limits,
                                      Error* error) {
  if (bytes.starts_with("bplist")) return readBinaryPropertyList(bytes, limits, error);
  return readXmlPropertyList(bytes, limits, error);
}

}  // namespace thmp
