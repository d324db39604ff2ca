// SPDX-License-Identifier: Apache-2.0
//
// The names under which the results of a query reach its client. Each begins with a space, which is
// part of the name.
#pragma once

#include <string_view>

namespace thmp::query_messages {

inline constexpr std::string_view kQueryDidStart =
    " com.quorvane.tallyhive.mailplugin.QueryDidStart";
inline constexpr std::string_view kQueryHasUpdates =
    " com.quorvane.tallyhive.mailplugin.QueryHasUpdates";
inline constexpr std::string_view kQueryHasRemovals =
    " com.quorvane.tallyhive.mailplugin.QueryHasRemovals";
inline constexpr std::string_view kQueryDidComplete =
    " com.quorvane.tallyhive.mailplugin.QueryDidComplete";

// Pasteboard types.
inline constexpr char kResultsBatch[] = " com.quorvane.tallyhive.mailplugin.ResultsBatch";
inline constexpr char kRemovalBatch[] = " com.quorvane.tallyhive.mailplugin.RemovalBatch";

}  // namespace thmp::query_messages
