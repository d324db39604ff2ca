// SPDX-License-Identifier: Apache-2.0
//
// The user database, by its re-entrant calls. Any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/identity.h"

namespace thmp {

std::optional<UserRecord> userRecordOf(uid_t user);
std::optional<UserRecord> userRecordOf(const std::string& name);

}  // namespace thmp
