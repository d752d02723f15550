#pragma once

// Umbrella header of the decode library.
#include "kvr_decode/camera_file.h"
#include "kvr_decode/device_data.h"
#include "kvr_decode/export.h"
#include "kvr_decode/switches.h"
