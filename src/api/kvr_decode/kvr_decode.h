#pragma once

// Umbrella header of the decode library.
#include "kvr_decode/export.h"
#include "kvr_decode/file_header.h"
#include "kvr_decode/switches.h"
