#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kvr_decode/export.h"
#include "kvr_decode/raw_file_header.h"
#include "kvr_decode/raw_shot.h"

namespace OpticalModel {

// The optical model of the scanner that wrote a scan file. Every field starts
// at the value it keeps when the header does not override it.
struct CalibrationParameters {
  float rangeOffset = -13.2f;  // calibration value "rangeOffset"
  double a0 = 0.0;             // range polynomial
  double a1 = 1.0;
  double a2 = 0.0;
  double a3 = 0.0;
  double a4 = 0.0;  // a4 to a6: model 2 only
  double a5 = 0.0;
  double a6 = 0.0;
  double wobblePhiModel1 = 0.0;  // "wobble-phi" of a model-1 text
  double smKappa = 0.0;
  double panA = 0.0;
  double panB = 0.0;
  double wobbleOmega = 0.0;
  double wobbleOmegaA = 0.0;
  double wobbleOmegaB = 0.0;
  double reserved = 0.0;  // never set
  double wobblePhi = 0.0;  // "wobble-phi" of a model-2 text
  double wobblePhiA = 0.0;
  double wobblePhiB = 0.0;
  double wobblePhiS = 0.0;
  float rangeTable[4096] = {};  // range table of the file's PRF
  std::int32_t rangeTableValid = 0;      // 1 when rangeTable was filled
  std::int32_t opticalModelVersion = 1;  // 1 or 2
};

}  // namespace OpticalModel

// The optical model of a decoded header: range offset, range table of its PRF
// and the tagged coefficients of its optical model text. Prints the line
// "Optical model version N" when the header carries an optical model text.
KVR_API OpticalModel::CalibrationParameters GetCalibrationParameters(RawFileHeader& fileHeader);

// The calibration value stored under key. A missing key is added with 0.0.
KVR_API double GetCfValue(std::string& key, RawFileHeader& fileHeader);

// Pan and scan angle (radians, 90-degree scanner formula) of a shot and the range
// (metres) of one of its returns. -1 when the return does not exist (range left
// untouched) or its range is negative (range is then -1.0); 0 otherwise.
KVR_API int GetPolarTriplet(const RawShot& shot, int returnIndex, double& pan, double& scan, double& range);

// Shifts the scan (mode 0) or pan (mode 1) counts of evenly spaced shots in time by
// lagSeconds, interpolating between neighbours; prf is in Hz. corrected must hold at
// least shots.size() elements. -8 for an empty list or when some shot could not be
// placed (its status becomes -8), else 0.
KVR_API int ApplyLagCorrection(std::vector<RawShot>& shots, double prf, double lagSeconds, int mode,
                               std::vector<unsigned int>& corrected);

// The range normalisation term of a return's intensity.
KVR_API double CalculateIdist(double& intensityScale, double& intensityExponent, double& gain, double& offset,
                              double& referenceRange, double& range, unsigned short intensity);
