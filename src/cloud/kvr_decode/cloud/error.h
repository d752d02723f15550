#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

#include "kvr_decode/cloud/export.h"

namespace kvr::cloud {

// Every refusal of the layer: the message reads "FILE: what is wrong", the file
// being the input or output at fault.
class KVR_CLOUD_API Error : public std::runtime_error {
 public:
  Error(const std::filesystem::path& path, const std::string& reason);
  const std::filesystem::path& path() const noexcept { return path_; }
  const std::string& reason() const noexcept { return reason_; }

 private:
  std::filesystem::path path_;
  std::string reason_;
};

// The input does not exist.
class KVR_CLOUD_API MissingFileError : public Error {
 public:
  using Error::Error;
};

// The input exists but is not what it should be: unreadable, damaged, foreign,
// or a map of another scan.
class KVR_CLOUD_API InputError : public Error {
 public:
  using Error::Error;
};

// An output could not be written completely; the file it was to replace is
// left as it was.
class KVR_CLOUD_API OutputError : public Error {
 public:
  using Error::Error;
};

}  // namespace kvr::cloud
