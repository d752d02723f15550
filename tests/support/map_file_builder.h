#pragma once
// Moved to the writer library; kept so that tests written against this path still build.
#include "kvr_writers/map_file_writer.h"
namespace kvr::test { using namespace kvr::writers; }
