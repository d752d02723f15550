#pragma once

#include <vector>

#include "kvr_decode/raw_shot.h"

namespace kvr::optics {

// Which encoder reading lag correction shifts; any other mode only marks the
// shots that cannot be placed.
enum LagCorrectionMode : int { kCorrectScanCounts = 0, kCorrectPanCounts = 1 };

// Shifts the scan or pan counts of evenly spaced shots by lagSeconds,
// interpolating between neighbours. Writes corrected[i] for every shot (mode 0
// and 1) and applies the values only after all are computed. A shot whose
// shifted time falls outside the list gets status -8 and its own scan count.
// Returns -8 for an empty list or any such shot, else 0. Throws
// std::out_of_range when corrected is indexed beyond its end.
int CorrectLag(std::vector<RawShot>& shots, double prf, double lagSeconds, int mode,
               std::vector<unsigned int>& corrected);

}  // namespace kvr::optics
