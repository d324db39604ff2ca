// SPDX-License-Identifier: Apache-2.0
#include "maillibrary/FoundItem.h"

namespace thmp {

namespace {

// One object for each key, shared by all items; never destroyed, because engine threads may outlive
// the process's static objects.
struct Keys {
  const Text attributes = Text::forever("attributes");
  const Text index = Text::forever("index");
  const Text path = Text::forever("kMDItemPath");
  const Text libraryID = Text::forever("libraryID");
};

const Keys& keys() {
  static const Keys& keys = *new Keys;
  return keys;
}

}  // namespace

Dictionary FoundItem::dictionary() const {
  Dictionary item;
  item.reserve(4);
  // In the order of the keys.
  item.append(keys().attributes, attributes);
  item.append(keys().index, index);
  if (path) item.append(keys().path, *path);
  if (libraryID) item.append(keys().libraryID, *libraryID);
  return item;
}

}  // namespace thmp
