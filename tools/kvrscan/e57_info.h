#pragma once

#include <string>

namespace kvrscan {

struct Context;

// info FILE.e57: the scans, point counts and images of an E57 file the point
// layer wrote, every page's checksum checked.
bool IsE57Name(const std::string& path);
int RunE57Info(const std::string& path, Context& context);

}  // namespace kvrscan
