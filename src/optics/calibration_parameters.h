#pragma once

#include <string>

#include "kvr_decode/optical_model.h"
#include "kvr_decode/raw_file_header.h"

namespace kvr::optics {

// The optical model of a decoded header (range offset, the range table of its
// PRF, the tagged coefficients of its optical model text). Writes the model
// version to standard output when the header carries an optical model text.
OpticalModel::CalibrationParameters ReadCalibrationParameters(RawFileHeader& header);

// The calibration value under key; a missing key is inserted with 0.0, and later
// lookups (the range offset above included) see that 0.0.
double CalibrationValue(const std::string& key, RawFileHeader& header);

}  // namespace kvr::optics
