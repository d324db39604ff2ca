// SPDX-License-Identifier: Apache-2.0
//
// What bytes are text, and text that is safe to show on one line. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace thmp {

bool isUtf8(std::string_view bytes);

/// `text` with its control characters, and bytes that are no UTF-8, as "\n", "\t", "\r" or "\xHH".
std::string escapeControls(std::string_view text);

}  // namespace thmp
