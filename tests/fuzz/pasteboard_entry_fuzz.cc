// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as the file of a pasteboard, under names and types that a hostile message could give.
// The reader gives what the property-list reader gives of those bytes; names never lead out of the
// pasteboards, nor to a pasteboard that was not made; what the store writes the reader reads, and
// after a clear there is nothing.
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "base/plist.h"
#include "platform/linux/PasteboardReader.h"
#include "platform/linux/PasteboardStore.h"
#include "tests/fuzz/ScratchFolder.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

constexpr char kName[] = "planted-1";
constexpr char kType[] = "type";
const std::string kPasteboards = "tallyhive/pasteboards/";

class SilentLog final : public SystemLog {
 public:
  void write(std::string_view /*line*/) noexcept override {}
};

// What "%XX" stands for; an independent inverse of the file name of a type.
std::string decoded(std::string_view name) {
  const auto digit = [](char c) { return c <= '9' ? c - '0' : c - 'A' + 10; };
  std::string type;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] != '%') {
      type += name[i];
      continue;
    }
    THMP_FUZZ_CHECK(i + 2 < name.size());
    type += static_cast<char>(digit(name[i + 1]) * 16 + digit(name[i + 2]));
    i += 2;
  }
  return type;
}

struct Scene {
  Scene() {
    // Where a name that leads out would get.
    for (const char* place : {"type", "tallyhive/type", "tallyhive/pasteboards/type"}) {
      folder.write(place, *writeBinaryPropertyList("secret"));
    }
  }
  ScratchFolder folder;
  SilentLog log;
  PasteboardStore store{folder.path(), log};
  PasteboardReader reader{folder.path()};
  std::shared_ptr<Pasteboard> board = store.makeUnique(nullptr);
};

void checkNames(const Scene& scene, const std::string& name, const std::string& type) {
  const auto fileName = PasteboardFolder::fileName(type);
  if (fileName) {
    THMP_FUZZ_CHECK(decoded(*fileName) == type);
    THMP_FUZZ_CHECK(fileName->find('/') == std::string::npos);
    THMP_FUZZ_CHECK(*fileName != "." && *fileName != "..");
  }
  if (name == kName || name == scene.board->name()) return;
  THMP_FUZZ_CHECK(!scene.reader.read(name, kType).has_value());
  THMP_FUZZ_CHECK(!scene.reader.read(name + "/" + kName, kType).has_value());
  THMP_FUZZ_CHECK(!scene.reader.read(std::string(kName) + "/" + name, kType).has_value());
}

void checkStore(Scene& scene, const Value& value, const std::string& type) {
  scene.board->declareType(type);
  THMP_FUZZ_CHECK(!scene.reader.read(scene.board->name(), type).has_value());
  if (!scene.board->setPropertyList(value, type)) {
    THMP_FUZZ_CHECK(!PasteboardFolder::fileName(type) || type.size() > 80);
    return;
  }
  const auto read = scene.reader.read(scene.board->name(), type);
  THMP_FUZZ_CHECK(read && Value::identical(*read, value));
  scene.board->clearContents();
  THMP_FUZZ_CHECK(!scene.reader.read(scene.board->name(), type).has_value());
}

Scene& scene() {
  static Scene only;
  return only;
}

void parseOnce(std::string_view bytes) {
  scene().folder.write(kPasteboards + kName + "/" + kType, bytes);
  scene().reader.read(kName, kType);
}

}  // namespace

const Bounds kBounds{1, 64 * kMiB, parseOnce};

void runInput(std::string_view bytes) {
  Decisions decisions(bytes);
  const std::string name(decisions.text());
  const std::string type(decisions.text());
  const std::string_view content = decisions.rest();
  checkNames(scene(), name, type);

  scene().folder.write(kPasteboards + kName + "/" + kType, content);
  const auto read = scene().reader.read(kName, kType, kMessageLimits);
  const auto expected = readBinaryPropertyList(content, kMessageLimits);
  THMP_FUZZ_CHECK(read.has_value() == expected.has_value());
  if (!read) return;
  THMP_FUZZ_CHECK(Value::identical(*read, *expected));
  checkStore(scene(), *read, type);
}

}  // namespace thmp::fuzz
