// SPDX-License-Identifier: Apache-2.0
//
// The texts that the index does not keep, read from the message files again. The few searches that
// need them, such as those for a phrase, read only what the table of words has not ruled out.
#pragma once

#include "host/index/Index.h"
#include "host/store/Library.h"

namespace thmp {

/// The library outlives the source, which any thread may ask.
Index::TextSource mailTexts(const Library& library);

}  // namespace thmp
