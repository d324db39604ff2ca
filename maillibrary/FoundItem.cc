// SPDX-License-Identifier: Apache-2.0
#include "maillibrary/FoundItem.h"

#include <vector>

namespace thmp {

namespace {

// One object for each key, shared by all items; never destroyed, because engine threads may outlive
// the process's static objects.
struct Keys {
  const Text attributes{"attributes"};
  const Text index{"index"};
  const Text path{"kMDItemPath"};
  const Text libraryID{"libraryID"};
};

const Keys& keys() {
  static const Keys& keys = *new Keys;
  return keys;
}

}  // namespace

Dictionary FoundItem::dictionary() const {
  std::vector<Dictionary::Entry> entries;
  entries.reserve(4);
  entries.push_back({keys().attributes, attributes});
  entries.push_back({keys().index, index});
  if (path) entries.push_back({keys().path, *path});
  if (libraryID) entries.push_back({keys().libraryID, *libraryID});
  return Dictionary(std::move(entries));
}

}  // namespace thmp
