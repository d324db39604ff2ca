// SPDX-License-Identifier: Apache-2.0
//
// The file calls of this process, seen from inside: the functions of the C library that make,
// write, name and sync files are defined in this program itself, so that what it links, SQLite's
// library included, comes through here. Each tells a hook before it goes to the kernel and after
// it.
//
// Syncing ends here: what survives a process needs none, and what survives a power loss is worked
// out by whoever has kept the calls. Hooks run under one lock and call no function of these.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string_view>

namespace thmp::disk {

struct FileCall {
  enum class What : std::uint8_t {
    kOpen,
    kClose,
    kWrite,
    kTruncate,
    kSync,
    kLink,
    kRename,
    kUnlink,
    kMakeFolder,
    kMode,
  };
  What what;
  /// The descriptor, or the folder that `path` starts from.
  int file = -1;
  const char* path = nullptr;
  int toFolder = -1;
  const char* toPath = nullptr;
  /// As open(2) takes them.
  int flags = 0;
  std::string_view bytes = {};
  /// Where `bytes` go, or the length after a truncation.
  off_t place = 0;
};

class FileCallHook {
 public:
  virtual ~FileCallHook() = default;
  virtual void before(const FileCall& /*call*/) {}
  /// Only of calls that have succeeded.
  virtual void after(const FileCall& /*call*/, long /*result*/) {}
};

/// Null for none, as at the beginning.
void setFileCallHook(FileCallHook* hook);

/// As of now, as on file systems without O_TMPFILE.
void setUnnamedFiles(bool allowed);

enum class End : std::uint8_t { kClean, kKilled, kKilledAtWrite };

/// Runs `operation` in a child that is killed with SIGKILL at its call number `call`, from 1;
/// `halfWritten` lets half of a write's bytes reach the file before. The test fails when the child
/// ends in any other way but well.
End killAt(int call, bool halfWritten, const std::function<void()>& operation);

}  // namespace thmp::disk
