#include "kvr_writers/normalization_params_writer.h"

#include "kvr_writers/scan_file_writer.h"

namespace kvr::writers {

std::string NormalizationParamsText(const NormalizationParams& p) {
  std::string text;
  const auto line = [&text](const char* key, const std::optional<double>& value) {
    if (value) text += std::string(key) + " = " + ShortestDecimal(*value) + "\n";
  };
  line("a1", p.a1);
  line("a2", p.a2);
  line("a3", p.a3);
  line("a4", p.a4);
  line("a5", p.a5);
  if (p.numberOfBins) text += "numberOfBins = " + std::to_string(*p.numberOfBins) + "\n";
  line("gamma", p.gamma);
  return text;
}

}  // namespace kvr::writers
