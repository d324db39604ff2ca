// SPDX-License-Identifier: Apache-2.0
//
// The host's side of the named pasteboards: a folder for each, a file for each type.
//
// A pasteboard's name is "TOKEN-RANDOM". TOKEN names the host's lock file, which the host holds
// under flock(2) from its first pasteboard on; so another host can tell what a dead one has left,
// and removes it when it starts. Both parts are random, RANDOM of 128 bits: a name is never used
// twice, and a name that a client invents meets nothing.
//
// Content is written beside the pasteboards and then linked into its place, after the old content
// has gone: a reader has all of the old content, all of the new, or finds none. Any thread.
#pragma once

#include <memory>
#include <string>

#include "platform/log.h"
#include "platform/pasteboard.h"

namespace thmp {

class PasteboardStore final : public Pasteboards {
 public:
  /// Removes the pasteboards of dead hosts, never those of a live one. `cacheHome`: the folder of
  /// XDG_CACHE_HOME. A store that must be refused, because it is a link or not the user's own, is
  /// told once in `log`.
  PasteboardStore(std::string cacheHome, SystemLog& log);
  ~PasteboardStore() override;

  std::shared_ptr<Pasteboard> makeUnique(Error* error) override;

  class Shared;

 private:
  const std::shared_ptr<Shared> shared_;
};

}  // namespace thmp
