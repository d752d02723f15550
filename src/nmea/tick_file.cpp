#include "nmea/tick_file.h"

#include <cinttypes>
#include <cstdlib>

#include "platform/stream_reader.h"

namespace kvr::nmea {

void TickRecordReader::ReadNext() {
  const std::uint64_t recordOffset = nextRecordOffset_;
  stream::ReadLe(in_, record_.ticks);
  stream::ReadLe(in_, record_.type);
  if (isPulse()) {
    nextRecordOffset_ += layout::kPulseRecordSize;
    return;
  }
  stream::ReadLe(in_, record_.reserved[0]);
  stream::ReadLe(in_, record_.reserved[1]);
  stream::ReadLe(in_, record_.length);
  if (record_.length >= kSentenceBufferSize) StopOnOversizedSentence(recordOffset, record_.length);
  stream::ReadBytes(in_, text_, record_.length);
  text_[record_.length] = '\0';
  nextRecordOffset_ += layout::kSentenceRecordFixedSize + record_.length;
}

bool TickRecordReader::atEnd() const { return std::feof(in_) != 0 || std::ferror(in_) != 0; }

void StopOnOversizedSentence(std::uint64_t recordOffset, std::uint32_t length) {
  std::fprintf(stderr,
               "kvr_decode: fatal: the tick file's sentence record at file offset %" PRIu64
               " has a text length of %" PRIu32 " bytes; lengths must be below %zu. Stopping.\n",
               recordOffset, length, kSentenceBufferSize);
  std::fflush(stderr);
  std::abort();
}

}  // namespace kvr::nmea
