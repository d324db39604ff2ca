// SPDX-License-Identifier: Apache-2.0
//
// Loads the plug-in's bundle into the process and runs its entry point. Never unloaded.
#pragma once

#include <string>

#include "base/result.h"
#include "platform/platform.h"

namespace thmp {

/// The bundle that stands beside the host's own program.
std::string defaultPluginBundle();

/// The version of `bundle`, when this host could start it; nothing of it runs. An error, in one
/// line, when it is missing or does not fit.
Result<std::string> checkPluginBundle(const std::string& bundle);

/// Loads `bundle` and starts the plug-in on the calling thread, which must be the main thread.
/// `platform` lives as long as the process. An error, in one line, when the bundle is missing or
/// does not fit; then nothing of it has run.
Result<void> startPlugin(const std::string& bundle, Platform& platform);

}  // namespace thmp
