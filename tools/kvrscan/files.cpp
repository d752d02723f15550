#include "files.h"

#include "file_access.h"
#include "scan_source.h"

namespace kvrscan {

void WriteWholeFile(const std::string& path, std::span<const unsigned char> bytes) {
  Checked([&] { kvr::cloud::WriteWholeFile(path, bytes); });
}

}  // namespace kvrscan
