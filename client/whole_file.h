// SPDX-License-Identifier: Apache-2.0
//
// Files for the user that stand under their name only once they are whole. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "base/result.h"

namespace thmp::client {

/// Whether writeWhole() has a chance at `path`: its folder is there and may be written, and nothing
/// but a regular file stands under the name. An error says in words what is in the way.
Result<void> canWriteWhole(const std::string& path);

/// Puts a file of mode 0600 at `path`, in place of one that stands there; a link is followed. On
/// failure what stood there stays as it was.
Result<void> writeWhole(const std::string& path, std::string_view bytes);

}  // namespace thmp::client
