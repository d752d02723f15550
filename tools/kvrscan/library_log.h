#pragma once

#include <cstdint>
#include <string>

namespace kvrscan {

// The library's diagnostic log, "KVR_Decode.log" in the current directory. The
// library appends its start marker when it loads, before main runs; any other
// entry after that means a call reported a failure there, and the tool's error
// message says where to read it. (Start markers of other processes that share
// the directory are not counted.)
class LibraryLog {
 public:
  // Remembers the log's size now.
  LibraryLog();

  bool grew() const;
  std::string path() const;
  // "; the library's log has details: PATH" when it grew, else "".
  std::string note() const;

 private:
  std::uintmax_t initialSize_ = 0;
};

}  // namespace kvrscan
