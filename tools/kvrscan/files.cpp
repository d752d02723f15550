#include "files.h"

#include <cerrno>
#include <cstring>

#include "errors.h"

namespace kvrscan {

void WriteWholeFile(const std::string& path, std::span<const unsigned char> bytes) {
  const std::string temporary = path + ".part";
  FileHandle out(std::fopen(temporary.c_str(), "wb"));
  if (!out) throw FileError(path, std::string("cannot create (") + std::strerror(errno) + ")");
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), out.get()) == bytes.size() &&
                       std::fflush(out.get()) == 0;
  const std::string reason = written ? std::string() : std::strerror(errno);
  if (std::fclose(out.release()) != 0 || !written) {
    std::remove(temporary.c_str());
    throw FileError(path, "write failed" + (reason.empty() ? std::string() : " (" + reason + ")"));
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    const std::string error = std::strerror(errno);
    std::remove(temporary.c_str());
    throw FileError(path, "cannot replace (" + error + ")");
  }
}

}  // namespace kvrscan
