// SPDX-License-Identifier: Apache-2.0
//
// All that the core needs from outside, in one bundle of references, and the one entry point of the
// plug-in's shared object.
#pragma once

#include <cstdint>

#include "platform/application.h"
#include "platform/execution.h"
#include "platform/files.h"
#include "platform/identity.h"
#include "platform/log.h"
#include "platform/mail.h"
#include "platform/pasteboard.h"
#include "platform/preferences.h"
#include "platform/spotlight.h"

namespace thmp {

/// Raised whenever a header of platform/ or base/ changes what host and bundle share in memory.
inline constexpr std::uint32_t kPlatformInterfaceVersion = 3;

/// REQUIRES: all of it outlives the process's use of the plug-in.
struct Platform {
  /// First, so that a bundle can read it whatever follows.
  std::uint32_t interfaceVersion = kPlatformInterfaceVersion;
  Files& files;
  Execution& execution;
  Identity& identity;
  Preferences& preferences;
  Application& application;
  Pasteboards& pasteboards;
  Spotlight& spotlight;
  Mail& mail;
  SystemLog& log;
};

/// The bundle's one exported symbol. Runs the plug-in's start-up on the calling thread. False when
/// the bundle does not speak the platform's interface version; then nothing has happened.
using PluginEntryPoint = bool (*)(Platform* platform);
inline constexpr char kPluginEntryPointName[] = "THMPMailPluginStart";

}  // namespace thmp
