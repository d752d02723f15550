#include "kvr_decode/optical_model.h"

#include "optics/calibration_parameters.h"
#include "optics/intensity_distance.h"
#include "optics/lag_correction.h"
#include "optics/polar_triplet.h"

OpticalModel::CalibrationParameters GetCalibrationParameters(RawFileHeader& fileHeader) {
  return kvr::optics::ReadCalibrationParameters(fileHeader);
}

double GetCfValue(std::string& key, RawFileHeader& fileHeader) {
  return kvr::optics::CalibrationValue(key, fileHeader);
}

int GetPolarTriplet(const RawShot& shot, int returnIndex, double& pan, double& scan, double& range) {
  return kvr::optics::PolarTriplet(shot, returnIndex, pan, scan, range);
}

int ApplyLagCorrection(std::vector<RawShot>& shots, double prf, double lagSeconds, int mode,
                       std::vector<unsigned int>& corrected) {
  return kvr::optics::CorrectLag(shots, prf, lagSeconds, mode, corrected);
}

double CalculateIdist(double& intensityScale, double& intensityExponent, double& gain, double& offset,
                      double& referenceRange, double& range, unsigned short intensity) {
  return kvr::optics::IntensityDistance(intensityScale, intensityExponent, gain, offset, referenceRange, range,
                                        intensity);
}
