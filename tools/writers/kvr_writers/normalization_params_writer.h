#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The normalization parameter file that sits next to a scan file (its name is
// the scan file's with ".NormalizationParams.txt" appended).
namespace kvr::writers {

inline constexpr const char* kNormalizationParamsSuffix = ".NormalizationParams.txt";

// Parameters left empty are not written, so the reader keeps its defaults.
struct NormalizationParams {
  std::optional<double> a1{}, a2{}, a3{}, a4{}, a5{};
  std::optional<std::int32_t> numberOfBins{};
  std::optional<double> gamma{};
};

// One "key = value" line per parameter given, numbers in their shortest exact form.
std::string NormalizationParamsText(const NormalizationParams& params);

}  // namespace kvr::writers
