#pragma once

// Umbrella header of the decode library.
#include "kvr_decode/camera_file.h"
#include "kvr_decode/device_data.h"
#include "kvr_decode/export.h"
#include "kvr_decode/switches.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/file_header.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "kvr_decode/optical_model.h"
#include "kvr_decode/scan_file_map.h"
