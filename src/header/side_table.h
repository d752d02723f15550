#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "kvr_decode/raw_file_header.h"

// The side table that may accompany a scan file ("<scan file name>.tbl"): whole
// number keys across, a row coordinate down, resampled to one column per key.
namespace kvr::header {

using GridColumns = decltype(SideTableGrid::columns);

// LoadSideTable's result for a table that exists but is not attached: it cannot
// be read to its end, or would resample to an unreasonably large grid.
inline constexpr int kSideTableNotLoaded = -2;

// Loads the side table of the named scan file and attaches it to the record as
// a new grid (an earlier grid is not freed). 0 when a grid was attached, -1 when
// there is no table to open, kSideTableNotLoaded as above. A table without a key
// line or data line, or with a value column shorter than its neighbour, throws
// std::out_of_range("invalid vector<T> subscript").
int LoadSideTable(const wchar_t* scanFileName, RawFileHeader& record);

// One column per whole key from keys[0] to the last key: columns between two
// neighbouring keys are interpolated linearly, element by element;
// valueColumns[i] holds the values of keys[i].
GridColumns ResampleColumns(const std::vector<int>& keys, const std::vector<std::vector<double>>& valueColumns);

}  // namespace kvr::header
