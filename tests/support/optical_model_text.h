#pragma once
// Moved to the writer library; kept so that tests written against this path still build.
#include "kvr_writers/header_texts.h"
namespace kvr::test { using namespace kvr::writers; }
