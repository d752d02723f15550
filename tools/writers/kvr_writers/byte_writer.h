#pragma once

#include "platform/little_endian.h"

namespace kvr::writers {

// Builds little-endian binary records field by field: the library's own builder.
using ByteWriter = le::ByteBuilder;

}  // namespace kvr::writers
