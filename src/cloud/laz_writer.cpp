#include "kvr_decode/cloud/laz_writer.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include "file_access.h"
#include "kvr_decode/cloud/error.h"
#include "las_records.h"
#include "laz_chunk_encoder.h"
#include "laz_chunk_table.h"

#ifndef KVR_CLOUD_VERSION
#define KVR_CLOUD_VERSION "unknown"
#endif

namespace kvr::cloud {

namespace {

constexpr std::size_t kVlrHeaderSize = 54;
constexpr std::uint16_t kLaszipRecordId = 22204;
constexpr std::uint16_t kCompressorLayeredChunked = 3;
constexpr std::uint16_t kItemPoint14 = 10, kItemRgb14 = 11, kItemByte14 = 14;
constexpr std::uint16_t kItemVersion = 3;
constexpr std::uint8_t kCompressedFormatBit = 0x80;

void Put(char* at, const auto& value) { std::memcpy(at, &value, sizeof value); }

std::size_t LaszipVlrSize(bool colour) { return kVlrHeaderSize + 34 + 6 * (colour ? 3 : 2); }

// The record that tells readers how the points are compressed.
void PutLaszipVlr(char* vlr, bool colour, std::uint32_t chunkSize) {
  std::memset(vlr, 0, LaszipVlrSize(colour));
  std::memcpy(vlr + 2, "laszip encoded", 14);
  Put(vlr + 18, kLaszipRecordId);
  Put(vlr + 20, static_cast<std::uint16_t>(LaszipVlrSize(colour) - kVlrHeaderSize));
  constexpr std::string_view kDescription = "kvr_decode " KVR_CLOUD_VERSION;
  std::memcpy(vlr + 22, kDescription.data(), std::min<std::size_t>(32, kDescription.size()));
  char* at = vlr + kVlrHeaderSize;
  Put(at, kCompressorLayeredChunked);
  Put(at + 2, std::uint16_t{0});  // arithmetic coder
  at[4] = 3;                      // the compression's version: 3.4 revision 3
  at[5] = 4;
  Put(at + 6, std::uint16_t{3});
  Put(at + 8, std::uint32_t{0});  // options
  Put(at + 12, chunkSize);
  Put(at + 16, std::int64_t{-1});  // no special extended records
  Put(at + 24, std::int64_t{-1});
  const std::uint16_t items[][2] = {{kItemPoint14, 30}, {kItemRgb14, 6}, {kItemByte14, LasRecords::kExtraBytes}};
  Put(at + 32, static_cast<std::uint16_t>(colour ? 3 : 2));
  at += 34;
  for (const auto& item : items) {
    if (item[0] == kItemRgb14 && !colour) continue;
    Put(at, item[0]);
    Put(at + 2, item[1]);
    Put(at + 4, kItemVersion);
    at += 6;
  }
}

}  // namespace

// Gathers records into chunks and compresses them, inline or on a pool of
// threads. Chunks go into a ring of slots in file order; workers take filled
// slots in turn, and the writer's thread writes the oldest slot once it is
// compressed, waiting for it when the ring is full, so at most the ring's
// chunks are held whatever the file's size.
class LazWriter::Pipeline {
 public:
  Pipeline(LazWriter& writer, bool colour, std::uint32_t chunkSize, unsigned threads)
      : writer_(writer), colour_(colour), chunkSize_(chunkSize),
        slots_(threads > 1 ? 2 * threads : 1) {
    const std::size_t length = laz::ChunkEncoder(colour, LasRecords::kExtraBytes).recordLength();
    for (Slot& slot : slots_) slot.records.resize(std::size_t{chunkSize} * length);
    if (threads > 1) {
      for (unsigned i = 0; i < threads; ++i) workers_.emplace_back([this] { work(); });
    } else {
      inline_.emplace(colour, LasRecords::kExtraBytes);
    }
  }

  ~Pipeline() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    changed_.notify_all();
    for (std::thread& worker : workers_) worker.join();
  }

  // Room for up to `wanted` records in the chunk being filled; how many fit.
  std::size_t room(std::size_t wanted) const { return std::min<std::size_t>(wanted, chunkSize_ - filling().count); }
  char* next() { return reinterpret_cast<char*>(filling().records.data()) + filling().count * length(); }
  void added(std::size_t count) {
    filling().count += count;
    if (filling().count == chunkSize_) submit();
  }

  // Compresses what is left and writes every chunk; their sizes in order.
  const std::vector<std::uint32_t>& drain() {
    if (filling().count > 0) submit();
    while (written_ < filled_) writeOldest();
    return chunkBytes_;
  }

 private:
  struct Slot {
    std::vector<std::uint8_t> records, packed;
    std::size_t count = 0;
    bool done = false;
  };

  std::size_t length() const { return slots_.front().records.size() / chunkSize_; }
  Slot& filling() { return slots_[filled_ % slots_.size()]; }
  const Slot& filling() const { return slots_[filled_ % slots_.size()]; }

  void submit() {
    Slot& slot = filling();
    if (inline_) {
      inline_->encode(slot.records.data(), slot.count, slot.packed);
      slot.done = true;
    } else {
      std::lock_guard lock(mutex_);
      queue_.push_back(filled_);
    }
    changed_.notify_all();
    ++filled_;
    if (filled_ - written_ == slots_.size()) writeOldest();
  }

  void writeOldest() {
    Slot& slot = slots_[written_ % slots_.size()];
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return slot.done || error_; });
      if (error_) std::rethrow_exception(error_);
    }
    writer_.writeChunk(slot.packed);
    chunkBytes_.push_back(static_cast<std::uint32_t>(slot.packed.size()));
    slot.count = 0;
    slot.done = false;
    ++written_;
  }

  void work() {
    laz::ChunkEncoder encoder(colour_, LasRecords::kExtraBytes);
    for (;;) {
      Slot* slot;
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return stop_ || !queue_.empty(); });
        if (stop_) return;
        slot = &slots_[queue_.front() % slots_.size()];
        queue_.pop_front();
      }
      try {
        encoder.encode(slot->records.data(), slot->count, slot->packed);
      } catch (...) {
        std::lock_guard lock(mutex_);
        if (!error_) error_ = std::current_exception();
      }
      {
        std::lock_guard lock(mutex_);
        slot->done = true;
      }
      changed_.notify_all();
    }
  }

  LazWriter& writer_;
  bool colour_;
  std::uint32_t chunkSize_;
  std::vector<Slot> slots_;
  std::uint64_t filled_ = 0;   // chunks handed over for compression
  std::uint64_t written_ = 0;  // chunks written; their slots may be filled again
  std::vector<std::uint32_t> chunkBytes_;
  std::optional<laz::ChunkEncoder> inline_;

  std::mutex mutex_;
  std::condition_variable changed_;  // a chunk queued or compressed, or the pool stopping
  std::deque<std::uint64_t> queue_;
  bool stop_ = false;
  std::exception_ptr error_;
  std::vector<std::thread> workers_;
};

LazWriter::LazWriter(const std::filesystem::path& path, const LasOptions& options, const Colouring& colouring,
                     const LazOptions& laz)
    : PointWriter(path, colouring), records_(std::make_unique<LasRecords>(options, colours_, scale_)) {
  if (laz.chunkSize == 0) throw OutputError(path, "a LAZ chunk must hold at least one point");
  const bool colour = options.colour;
  pointOffset_ = static_cast<std::uint32_t>(LasRecords::kHeaderSize + LasRecords::kExtraBytesVlrSize +
                                            LaszipVlrSize(colour));
  // The header and the chunk table's offset are written again by complete().
  char* at = claim(pointOffset_ + 8);
  std::memset(at, 0, LasRecords::kHeaderSize);
  records_->putExtraBytesVlr(at + LasRecords::kHeaderSize);
  PutLaszipVlr(at + LasRecords::kHeaderSize + LasRecords::kExtraBytesVlrSize, colour, laz.chunkSize);
  std::memset(at + pointOffset_, 0, 8);
  pipeline_ = std::make_unique<Pipeline>(*this, colour, laz.chunkSize, laz.threads);
}

LazWriter::~LazWriter() = default;

void LazWriter::encode(const PointBatch& batch) {
  for (std::size_t first = 0; first < batch.size();) {
    const std::size_t count = pipeline_->room(batch.size() - first);
    records_->encode(batch, first, first + count, pipeline_->next(), path_);
    pipeline_->added(count);
    first += count;
  }
}

void LazWriter::writeChunk(const std::vector<std::uint8_t>& chunk) {
  flushBuffer();  // the header's place goes first
  out_->write(chunk.data(), chunk.size());
}

void LazWriter::complete() {
  const std::vector<std::uint32_t>& sizes = pipeline_->drain();
  std::uint64_t tableAt = pointOffset_ + 8;
  for (const std::uint32_t size : sizes) tableAt += size;
  const std::vector<std::uint8_t> table = laz::ChunkTable(sizes);
  flushBuffer();
  out_->write(table.data(), table.size());
  pipeline_.reset();
  char header[LasRecords::kHeaderSize];
  records_->putHeader(header, count_, pointOffset_, 2, kCompressedFormatBit);
  out_->overwrite(0, header, sizeof header, "cannot write the header's counts and bounds");
  out_->overwrite(pointOffset_, &tableAt, 8, "cannot write the chunk table's offset");
}

}  // namespace kvr::cloud
