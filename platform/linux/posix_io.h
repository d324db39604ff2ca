// SPDX-License-Identifier: Apache-2.0
//
// The few file operations that the classes of this folder share. Each is relative to a folder
// descriptor where that matters, repeats after EINTR, opens with O_CLOEXEC, and makes folders of
// mode 0700 and files of mode 0600 whatever the umask says. Failures leave their reason in errno
// unless an Error is taken. Any thread.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "platform/linux/Descriptor.h"

namespace thmp {

/// What the names of entries that stand for a moment only begin with: unfinished files where a file
/// system knows no unnamed ones, folders on their way out.
inline constexpr std::string_view kTemporaryFilePrefix = ".x.tmp-";

inline constexpr mode_t kPrivateFolderMode = 0700;
inline constexpr mode_t kPrivateFileMode = 0600;

/// Fills `error` from errno. Always false.
bool failWithErrno(Error* error, std::string_view what);

/// Whether `name` is one entry of a folder: not empty, ".", "..", and without "/" and NUL.
bool isEntryName(std::string_view name);

/// As openat(2), O_CLOEXEC added. A path with a NUL in it is refused with EINVAL.
Descriptor openAt(int folder, const std::string& path, int flags, mode_t mode = 0);

/// Whether both descriptions are of the same file.
bool sameFile(const struct stat& a, const struct stat& b);

/// What stands under `name`, links not followed; empty on failure.
std::optional<struct stat> statAt(int folder, const std::string& name);

/// The bytes of the open regular file `file`. EISDIR, EINVAL or EFBIG when it is a folder, no
/// regular file, or longer than `maxBytes`.
std::optional<std::string> readRegularFile(int file, std::size_t maxBytes);

bool writeAll(int file, std::string_view bytes);

/// The names in the open folder, hidden ones included, without "." and "..".
std::optional<std::vector<std::string>> listFolder(int folder);
/// The same of a folder that is opened for this alone, which spares a descriptor.
std::optional<std::vector<std::string>> listOpenedFolder(Descriptor folder);

/// Has the names in the folder outlast a power loss, as far as its file system can.
void syncFolder(const std::string& path);

/// Makes `path` and what is missing above it, private to the user and synced into the folder above.
/// An existing folder is success.
bool createFolders(const std::string& path);

/// Opens the folder `name` in `parent`, made when it is missing and `create` is set. A folder of
/// the user's with another mode is set to 0700. A link, another kind of entry, or somebody else's
/// folder is refused with EPERM.
Descriptor openOwnFolder(int parent, const std::string& name, bool create);

/// Removes the entry `name`: a file, a link (never what it points to), or a folder with all it
/// holds, at any depth. A missing entry is success.
bool removeTree(int folder, const std::string& name);

/// `count` random bytes of the kernel as lower-case hexadecimal digits.
std::string randomHex(std::size_t count);

/// Whether the process ignores the signal, as nohup(1) has it do.
bool isIgnored(int signal);

}  // namespace thmp
