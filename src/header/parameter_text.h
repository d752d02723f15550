#pragma once

#include <cstdint>

#include "kvr_decode/raw_file_header.h"

// The two line-oriented parameter files that the scanner embeds in the header
// block, turned into the tables that the calibration code reads.
namespace kvr::header {

using PrfTables = decltype(RawFileHeader::prfTables);

// Rebuilds prfTables from parameterText: every "[PRF = n]" section becomes the
// list of (fourth, fifth) column pairs of its rows, in line order.
void BuildPrfTables(const char* parameterText, std::uint32_t length, PrfTables& prfTables);

// Rebuilds calibrationValues from calibrationText for the record's own prf, and
// always sets "scanAngleLag" to minus one pulse period. An empty text leaves the
// values untouched. A three-token row in the record's own PRF section throws
// std::out_of_range("invalid vector<T> subscript").
void BuildCalibrationValues(RawFileHeader& record);

}  // namespace kvr::header
