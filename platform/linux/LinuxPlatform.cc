// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxPlatform.h"

#include <signal.h>

#include <utility>

namespace thmp {

LinuxPlatform::LinuxPlatform(XdgFolders folders, const Options& options)
    : folders_(std::move(folders)),
      log_(options.programName),
      files_(folders_.data),
      execution_(log_),
      identity_(folders_.home),
      preferences_(folders_.config + "/" + options.programName, log_),
      pasteboards_(folders_.cache, log_),
      application_(folders_, execution_, log_) {
  ::signal(SIGPIPE, SIG_IGN);
}

Platform LinuxPlatform::platform(Spotlight& spotlight, Mail& mail) {
  return Platform{.files = files_,
                  .execution = execution_,
                  .identity = identity_,
                  .preferences = preferences_,
                  .application = application_,
                  .pasteboards = pasteboards_,
                  .spotlight = spotlight,
                  .mail = mail,
                  .log = log_};
}

}  // namespace thmp
