#pragma once
// Moved to the writer library; kept so that tests written against this path still build.
#include "kvr_writers/fifo_block_writer.h"
#include "kvr_writers/synthetic_blocks.h"
namespace kvr::test { using namespace kvr::writers; }
