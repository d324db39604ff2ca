// SPDX-License-Identifier: Apache-2.0
#include "console/terminal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace thmp::console {
namespace {

constexpr std::size_t kBufferSize = std::size_t{64} << 10;

// Of the whole process: whichever object writes, it is the same output.
int lostBecause = 0;

void noteLoss(int number) {
  const bool readerHasGone = number == EPIPE || number == EBADF || number == ECONNRESET ||
                             (number == EIO && ::isatty(STDOUT_FILENO) == 1);
  if (!readerHasGone) lostBecause = number;
}

bool colorWanted(ColorMode mode, bool terminal) {
  if (mode != ColorMode::kAuto) return mode == ColorMode::kAlways;
  const char* noColor = std::getenv("NO_COLOR");
  return terminal && (noColor == nullptr || *noColor == '\0');
}

// Embeddings, overrides, isolates and marks: they could make a line read as something else.
bool changesDirection(utf8proc_int32_t c) {
  return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

bool isControl(utf8proc_int32_t c) { return c < 0x20 || (c >= 0x7F && c < 0xA0); }
bool breaksLines(utf8proc_int32_t c) { return c == 0x2028 || c == 0x2029; }

struct Character {
  utf8proc_int32_t codePoint = 0;
  std::size_t size = 1;
};

// A byte that is no UTF-8 counts as U+FFFD.
Character characterAt(std::string_view text, std::size_t position) {
  Character character;
  const utf8proc_ssize_t size =
      utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()) + position,
                       static_cast<utf8proc_ssize_t>(text.size() - position), &character.codePoint);
  if (size <= 0) return {0xFFFD, 1};
  character.size = static_cast<std::size_t>(size);
  return character;
}

std::size_t widthOf(utf8proc_int32_t codePoint) {
  // Newer than our tables: no terminal gives one character more than two columns.
  if (utf8proc_category(codePoint) == UTF8PROC_CATEGORY_CN) return 2;
  return static_cast<std::size_t>(std::max(utf8proc_charwidth(codePoint), 0));
}

}  // namespace

void prepareStandardStreams() {
  ::signal(SIGPIPE, SIG_IGN);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(stream, F_GETFD) >= 0) continue;
    // The lowest one that is free; open for what nobody does with it.
    ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

void say(std::string_view text) noexcept {
  [[maybe_unused]] const std::size_t written = std::fwrite(text.data(), 1, text.size(), stderr);
}

StandardOutput::StandardOutput(ColorMode color)
    : terminal_(::isatty(STDOUT_FILENO) == 1), color_(colorWanted(color, terminal_)) {}

void StandardOutput::write(std::string_view bytes) {
  buffer_ += bytes;
  if (buffer_.size() >= kBufferSize) flush();
}

void StandardOutput::flush() {
  std::string_view left = buffer_;
  while (!left.empty() && !closed_) {
    const ssize_t written = ::write(STDOUT_FILENO, left.data(), left.size());
    if (written >= 0) {
      left.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd waiting{STDOUT_FILENO, POLLOUT, 0};
      ::poll(&waiting, 1, -1);
    } else if (errno != EINTR) {
      noteLoss(errno);
      closed_ = true;
    }
  }
  buffer_.clear();
}

bool StandardOutput::isPipe() const {
  struct stat status {};
  return ::fstat(STDOUT_FILENO, &status) == 0 &&
         (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

std::size_t StandardOutput::columns() const {
  winsize size{};
  if (terminal_ && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
    return size.ws_col;
  return 80;
}

std::string lostOutput() {
  if (std::fflush(stdout) != 0) noteLoss(errno);
  if (lostBecause == 0) return {};
  return fmt::format("standard output cannot be written: {}",
                     std::generic_category().message(lostBecause));
}

std::string shown(std::string_view text) {
  std::string safe;
  safe.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const auto [codePoint, size] = characterAt(text, position);
    if (codePoint == '\n' || codePoint == '\r' || codePoint == '\t') {
      if (!safe.empty() && safe.back() != ' ') safe += ' ';
    } else if (isControl(codePoint)) {
      constexpr std::string_view kDigits = "0123456789ABCDEF";
      safe += "\\x";
      safe += kDigits[static_cast<std::size_t>(codePoint >> 4)];
      safe += kDigits[static_cast<std::size_t>(codePoint & 15)];
    } else if (codePoint == 0xFFFD) {
      safe += "\xEF\xBF\xBD";
    } else if (!changesDirection(codePoint) && !breaksLines(codePoint)) {
      safe += text.substr(position, size);
    }
    position += size;
  }
  return safe;
}

std::string shownJson(std::string_view json) {
  std::string safe;
  safe.reserve(json.size());
  for (std::size_t position = 0; position < json.size();) {
    const auto [codePoint, size] = characterAt(json, position);
    // These stand in texts alone, and there an escape means the same.
    if (isControl(codePoint) || changesDirection(codePoint) || breaksLines(codePoint)) {
      safe += fmt::format("\\u{:04x}", static_cast<unsigned>(codePoint));
    } else {
      safe += json.substr(position, size);
    }
    position += size;
  }
  return safe;
}

bool isUtf8(std::string_view text) {
  for (std::size_t position = 0; position < text.size();) {
    const auto [codePoint, size] = characterAt(text, position);
    if (codePoint == 0xFFFD && size == 1) return false;
    position += size;
  }
  return true;
}

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t position = 0; position < text.size();) {
    const auto [codePoint, size] = characterAt(text, position);
    width += widthOf(codePoint);
    position += size;
  }
  return width;
}

std::string fitted(std::string_view text, std::size_t columns, bool pad) {
  const std::size_t width = displayWidth(text);
  if (width <= columns) return std::string(text) + std::string(pad ? columns - width : 0, ' ');
  if (columns == 0) return {};
  std::string cut;
  std::size_t used = 0;
  for (std::size_t position = 0; position < text.size();) {
    const auto [codePoint, size] = characterAt(text, position);
    if (used + widthOf(codePoint) > columns - 1) break;
    used += widthOf(codePoint);
    cut += text.substr(position, size);
    position += size;
  }
  cut += "…";
  return cut + std::string(pad ? columns - 1 - used : 0, ' ');
}

}  // namespace thmp::console
