// SPDX-License-Identifier: Apache-2.0
//
// The standard streams as the programs use them: output buffered, aware of a reader that has gone,
// and with what mail says made safe to show on a terminal. One thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace thmp::console {

/// A program's first call. A stream that it was started without stays one that cannot be used: no
/// file of its own comes to stand there and is written to as one. SIGPIPE is ignored from here on.
void prepareStandardStreams();

/// Writes to standard error. What cannot be written is lost: there is nobody to tell.
void say(std::string_view text) noexcept;

enum class ColorMode { kAuto, kAlways, kNever };

class StandardOutput {
 public:
  explicit StandardOutput(ColorMode color);
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;

  void write(std::string_view bytes);
  void flush();
  /// Whether the reader has gone. What is written afterwards is dropped.
  bool isClosed() const { return closed_; }

  bool isTerminal() const { return terminal_; }
  /// Whether another program reads it, which may use the terminal itself, as pagers do.
  bool isPipe() const;
  bool hasColor() const { return color_; }
  /// Columns of the terminal; 80 where that cannot be found out.
  std::size_t columns() const;

 private:
  std::string buffer_;
  bool closed_ = false;
  const bool terminal_;
  const bool color_;
};

/// Why something of this process's standard output is lost, in words for its user; empty when
/// nothing is, or when only its reader has gone. Asked once, at the end: it writes what stdio still
/// holds.
std::string lostOutput();

/// `text` on one line without anything that a terminal would act on: control characters as \x1B and
/// the like, line breaks and tabs as one blank, characters that change the writing direction left
/// out, bytes that are no UTF-8 as U+FFFD.
std::string shown(std::string_view text);

/// JSON on one line, the same with \u escapes in place of all that shown() would not let through.
std::string shownJson(std::string_view json);

bool isUtf8(std::string_view text);

/// The columns that a shown text takes.
std::size_t displayWidth(std::string_view text);

/// A shown text cut to `columns`, with "…" in place of what is cut, and when `pad` filled up with
/// blanks.
std::string fitted(std::string_view text, std::size_t columns, bool pad);

}  // namespace thmp::console
