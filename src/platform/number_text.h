#pragma once

#include <cstdlib>

namespace kvr::platform {

// atof as the C standard defines it: strtod(text, nullptr). Called through
// strtod because the system C library that MinGW programs use on Windows has an
// atof that reads neither hexadecimal nor "inf"/"nan", where strtod (MinGW's own,
// or the Universal CRT's under MSVC) reads them as the other systems do.
inline double Atof(const char* text) { return std::strtod(text, nullptr); }

}  // namespace kvr::platform
