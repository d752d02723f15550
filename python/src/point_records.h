// The records of the package's point arrays, filled from the point layer's
// batches. Apart from the Python binding so that bench/ can time the very same
// work in a plain C++ program.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/scan.h"
#include "platform/memory_pages.h"

namespace kvr::python {

// One point of a structured array. Wide fields first, so every field is aligned.
struct PointRecord {
  double X, Y, Z, GpsTime, Range, Pan, ScanAngle, NormalizedIntensity;
  std::uint64_t ShotIndex;
  std::int32_t Line;
  std::uint32_t Block;
  std::uint16_t Intensity;
  std::uint8_t ReturnNumber, NumberOfReturns, Flags;
  std::uint8_t padding[3];  // written as zeros, so that the array's bytes depend on the points alone
};
static_assert(std::is_standard_layout_v<PointRecord> && sizeof(PointRecord) == 88);

// The columns a PointRecord takes from a batch.
constexpr std::uint32_t kRecordColumns = cloud::kPositionColumns | cloud::kRangeColumn | cloud::kAngleColumns |
                                         cloud::kIntensityColumn | cloud::kNormalizedColumn |
                                         cloud::kReturnColumns | cloud::kLineColumn | cloud::kShotIndexColumn |
                                         cloud::kTimeColumn | cloud::kFlagColumn;

// Shots a batch of the reader: the columns of a run stay in the processor's
// cache until they are copied into records.
constexpr std::size_t kRunShots = 256;

// The records of one batch, from `out` on.
inline void FillRecords(const cloud::PointBatch& batch, PointRecord* out) {
  const double *x = batch.x().data(), *y = batch.y().data(), *z = batch.z().data();
  const double *time = batch.time().data(), *range = batch.range().data(), *pan = batch.pan().data();
  const double *scan = batch.scanAngle().data(), *normalized = batch.normalizedIntensity().data();
  const std::uint64_t* shot = batch.shotIndex().data();
  const std::int32_t* line = batch.line().data();
  const std::uint16_t* intensity = batch.intensity().data();
  const std::uint8_t *number = batch.returnNumber().data(), *count = batch.numberOfReturns().data();
  const std::uint8_t* flags = batch.flags().data();
  const std::uint32_t block = batch.block();
  for (std::size_t i = 0, n = batch.size(); i < n; ++i) {
    out[i] = PointRecord{x[i],        y[i],    z[i],    time[i],  range[i],     pan[i],       scan[i],
                         normalized[i], shot[i], line[i], block, intensity[i], number[i], count[i], flags[i], {}};
  }
}

// Fresh pages cost a fault each, and a whole scan's records are gigabytes: in
// a large buffer, the pages about to be written are asked of the kernel a few
// megabytes at a time in one call.
class PagesAhead {
 public:
  // Makes sure the pages of the first `bytes` of [data, data + capacity) and a
  // stretch beyond them were asked for.
  void prepare(void* data, std::size_t capacity, std::size_t bytes) {
    // Below the allocator's largest mapping threshold, pages are often reused ones.
    constexpr std::size_t kFresh = std::size_t{32} << 20, kStretch = std::size_t{4} << 20;
    if (bytes <= populated_ || capacity < kFresh || !populate_) return;
    const std::size_t end = std::min(capacity, std::max(bytes, populated_ + kStretch));
    populate_ = platform::PopulatePages(static_cast<char*>(data) + populated_, end - populated_);
    populated_ = end;
  }

 private:
  std::size_t populated_ = 0;  // bytes whose pages were asked for
  bool populate_ = true;
};

// Records from the C allocator that grow as batches arrive; numpy takes the
// memory over at the end (realloc moves large blocks by remapping, not copying).
// Batches of a few blocks stay below the allocator's mapping threshold once it
// has risen, so a loop that drops each batch reuses the same pages.
class RecordBuffer {
 public:
  RecordBuffer() = default;
  RecordBuffer(const RecordBuffer&) = delete;
  RecordBuffer& operator=(const RecordBuffer&) = delete;
  ~RecordBuffer() { std::free(data_); }

  void append(const cloud::PointBatch& batch) {
    const std::size_t n = batch.size();
    if (size_ + n > capacity_) grow(size_ + n);
    pages_.prepare(data_, capacity_ * sizeof(PointRecord), (size_ + n) * sizeof(PointRecord));
    FillRecords(batch, data_ + size_);
    size_ += n;
  }

  std::size_t size() const { return size_; }

  // Room for `points` records in all (a hint learnt from an earlier batch:
  // growing by copies costs more than a few unused pages).
  void reserve(std::size_t points) {
    if (points > capacity_) grow(points);
  }

  // Hands the records over to the caller, who frees them with std::free; the
  // buffer starts empty again.
  std::pair<PointRecord*, std::size_t> take() {
    const std::pair result{data_, size_};
    data_ = nullptr;
    size_ = capacity_ = 0;
    pages_ = {};
    return result;
  }

 private:
  void grow(std::size_t wanted) {
    std::size_t capacity = capacity_ < 4096 ? 4096 : capacity_;
    while (capacity < wanted) capacity *= 2;
    void* data = std::realloc(data_, capacity * sizeof(PointRecord));
    if (data == nullptr) throw std::bad_alloc();
    data_ = static_cast<PointRecord*>(data);
    capacity_ = capacity;
  }

  PointRecord* data_ = nullptr;
  std::size_t size_ = 0, capacity_ = 0;
  PagesAhead pages_;
};

// Every point of blocks [first, last) that `selection` keeps, appended to `records`.
inline void ReadRecords(const cloud::Scan& scan, std::uint64_t first, std::uint64_t last,
                        const cloud::Selection& selection, RecordBuffer& records) {
  cloud::PointReader reader(scan, first, last, selection);
  reader.setBatchShots(kRunShots);
  cloud::PointBatch batch;
  while (reader.next(batch)) records.append(batch);
}

// Runs work(0) .. work(parts - 1) on as many threads (the caller's one of
// them) and rethrows the first part's exception, after all have ended.
template <typename Work>
void RunParts(std::size_t parts, const Work& work) {
  std::vector<std::exception_ptr> failures(parts);
  const auto run = [&](std::size_t part) {
    try {
      work(part);
    } catch (...) {
      failures[part] = std::current_exception();
    }
  };
  std::vector<std::thread> threads;
  threads.reserve(parts - 1);
  for (std::size_t part = 1; part < parts; ++part) threads.emplace_back(run, part);
  run(0);
  for (std::thread& thread : threads) thread.join();
  for (const std::exception_ptr& failure : failures) {
    if (failure) std::rethrow_exception(failure);
  }
}

// The same records as ReadRecords, made by `threads` threads on consecutive
// parts of the blocks (any split gives the same points, in order). Each part's
// points are counted first, by a reader that makes no columns, so that every
// part fills its own place in one array of exactly the right size: no copies
// and no memory beyond the records. The caller frees the records with std::free.
inline std::pair<PointRecord*, std::size_t> ReadRecordsOnThreads(const cloud::Scan& scan, std::uint64_t first,
                                                                 std::uint64_t last, const cloud::Selection& selection,
                                                                 unsigned threads) {
  const std::uint64_t blocks = last > first ? last - first : 0;
  const auto parts = static_cast<std::size_t>(std::min<std::uint64_t>(threads, blocks));
  if (parts <= 1) {
    RecordBuffer records;
    ReadRecords(scan, first, last, selection, records);
    return records.take();
  }
  std::vector<std::uint64_t> bounds(parts + 1);
  for (std::size_t part = 0; part <= parts; ++part) bounds[part] = first + blocks * part / parts;

  std::vector<std::size_t> counts(parts + 1, 0);  // counts[part + 1]: the part's points
  RunParts(parts, [&](std::size_t part) {
    cloud::Selection counting = selection;
    counting.columns = 0;
    cloud::PointReader reader(scan, bounds[part], bounds[part + 1], counting);
    cloud::PointBatch batch;
    while (reader.next(batch)) counts[part + 1] += batch.size();
  });
  for (std::size_t part = 0; part < parts; ++part) counts[part + 1] += counts[part];  // now where each part starts

  const std::size_t total = counts[parts];
  if (total == 0) return {nullptr, 0};
  std::unique_ptr<PointRecord, decltype(&std::free)> records(
      static_cast<PointRecord*>(std::malloc(total * sizeof(PointRecord))), &std::free);
  if (records == nullptr) throw std::bad_alloc();
  RunParts(parts, [&](std::size_t part) {
    PointRecord* const begin = records.get() + counts[part];
    const std::size_t room = counts[part + 1] - counts[part];
    cloud::PointReader reader(scan, bounds[part], bounds[part + 1], selection);
    reader.setBatchShots(kRunShots);
    cloud::PointBatch batch;
    PagesAhead pages;
    std::size_t filled = 0;
    while (reader.next(batch)) {
      if (batch.size() > room - filled) throw std::logic_error("the scan's points changed while they were read");
      pages.prepare(begin, room * sizeof(PointRecord), (filled + batch.size()) * sizeof(PointRecord));
      FillRecords(batch, begin + filled);
      filled += batch.size();
    }
    if (filled != room) throw std::logic_error("the scan's points changed while they were read");
  });
  return {records.release(), total};
}

}  // namespace kvr::python
