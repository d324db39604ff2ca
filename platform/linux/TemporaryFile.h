// SPDX-License-Identifier: Apache-2.0
//
// A file that is written before it has its name. Where the file system can (O_TMPFILE), it has no
// name at all until then and leaves nothing behind when the process dies; elsewhere it stands under
// a name that the caller gives for that case. Destruction without linkAs() removes it. One thread
// at a time.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/Descriptor.h"

namespace thmp {

class TemporaryFile {
 public:
  /// Makes an empty file of mode 0600 in `folder`, which the object opens again for itself. Empty
  /// with errno set on failure.
  static std::optional<TemporaryFile> make(int folder, std::string nameIfNeeded);
  /// As make(), under that name on every file system.
  static std::optional<TemporaryFile> makeNamed(int folder, std::string name);

  TemporaryFile(TemporaryFile&& other) noexcept;
  TemporaryFile& operator=(TemporaryFile&&) = delete;
  ~TemporaryFile();

  /// Once finish() or a link has been called the descriptor may be closed.
  int descriptor() const noexcept { return file_.get(); }

  bool write(std::string_view bytes);
  /// Ends the writing, so that what the system tells only at close is known before the file has its
  /// name. The file keeps its descriptor where only that leads to it.
  bool finish();

  /// Gives the file its name in `folder` of the same file system, in one step; EEXIST when an entry
  /// of that name stands there.
  bool linkAs(int folder, const std::string& name);
  /// As linkAs(), in place of what stands there. For files made by makeNamed().
  bool renameOver(int folder, const std::string& name);

 private:
  TemporaryFile(Descriptor folder, Descriptor file, std::string name);

  Descriptor folder_;
  Descriptor file_;
  std::string name_;  // empty without one
};

}  // namespace thmp
