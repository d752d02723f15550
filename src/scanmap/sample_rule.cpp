#include "scanmap/sample_rule.h"

#include <cstring>

namespace kvr::scanmap {

void FoldExtremes(const SampleBatch& batch, double& minimum, double& maximum) {
  const double* v = batch.value.get();
  double low = minimum;
  double high = maximum;
  for (std::size_t i = 0; i < batch.count; ++i) {
    low = v[i] < low ? v[i] : low;
    high = v[i] > high ? v[i] : high;
  }
  minimum = low;
  maximum = high;
}

}  // namespace kvr::scanmap
