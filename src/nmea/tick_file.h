#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "nmea/tick_layout.h"
#include "optics/constants.h"

// Reading the records of a tick file (layout in nmea/tick_layout.h).
namespace kvr::nmea {

inline constexpr std::uint64_t kTickFileSignature = optics::MagicValue(layout::kSignature);
using layout::kPulseRecordType;
using layout::kSentenceBufferSize;

// The fixed fields of one record (a pulse record fills only ticks and type).
struct TickFileRecord {
  std::uint64_t ticks = 0;
  std::uint32_t type = 0;
  std::uint32_t reserved[2] = {0, 0};
  std::uint32_t length = 0;
};

// Reads the records of an open tick file positioned after its header. Every
// field is read over the previous record's value and the end of the file is
// seen only by the read that fails, so the call that meets the end hands back
// the last record a second time; the loader counts on that.
class TickRecordReader {
 public:
  explicit TickRecordReader(std::FILE* in) : in_(in) {}

  // Reads the next record. A sentence length of kSentenceBufferSize or more
  // stops the process with a message on standard error: the record cannot be
  // held, and the file is damaged beyond what a caller could act on.
  void ReadNext();

  const TickFileRecord& record() const { return record_; }
  bool isPulse() const { return record_.type == kPulseRecordType; }
  // The sentence text, zero-terminated after record().length bytes.
  const char* text() const { return text_; }
  // True once a read has met the end of the file (or a read error).
  bool atEnd() const;

 private:
  std::FILE* in_;
  TickFileRecord record_;
  char text_[kSentenceBufferSize] = {};
  std::uint64_t nextRecordOffset_ = layout::kHeaderSize;
};

// Writes the fatal message for an oversized sentence record and aborts.
[[noreturn]] void StopOnOversizedSentence(std::uint64_t recordOffset, std::uint32_t length);

}  // namespace kvr::nmea
