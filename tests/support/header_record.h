#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kvr_decode/raw_file_header.h"

namespace kvr::test {

// A RawFileHeader filled by hand, as the header decoder would leave it; the
// texts it points to live in this object, so it is neither copied nor moved.
class HeaderRecord {
 public:
  explicit HeaderRecord(std::uint32_t prf = 200) { header.prf = prf; }
  HeaderRecord(const HeaderRecord&) = delete;
  HeaderRecord& operator=(const HeaderRecord&) = delete;

  // The optical model text, stored with a terminating zero; the stored length
  // defaults to the text's size.
  void setOpticalModelText(std::string text, std::optional<std::uint32_t> storedLength = {}) {
    opticalModelText_ = std::move(text);
    header.thirdText = opticalModelText_.data();
    header.thirdTextLength = storedLength.value_or(static_cast<std::uint32_t>(opticalModelText_.size()));
  }

  // A table of `rows` pairs (i * 0.25, -i) under the given PRF.
  void setPrfTable(std::int32_t prf, std::size_t rows) {
    auto& table = header.prfTables[prf];
    table.clear();
    for (std::size_t i = 0; i < rows; ++i) table.emplace_back(static_cast<double>(i) * 0.25, -static_cast<double>(i));
  }

  RawFileHeader header;

 private:
  std::string opticalModelText_;
};

}  // namespace kvr::test
