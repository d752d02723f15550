#pragma once

#include "kvr_decode/raw_shot.h"

namespace kvr::optics {

// Pan and scan angle of a shot and the range of one of its returns; -1 when the
// return does not exist (range untouched) or lies before the shot's T0.
int PolarTriplet(const RawShot& shot, int returnIndex, double& pan, double& scan, double& range);

}  // namespace kvr::optics
