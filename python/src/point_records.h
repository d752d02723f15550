// The records of the package's point arrays, filled from the point layer's
// batches. Apart from the Python binding so that bench/ can time the very same
// work in a plain C++ program.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/scan.h"

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

// Records from the C allocator that grow as batches arrive; numpy takes the
// memory over at the end (realloc moves large blocks by remapping, not copying).
// Batches of a few blocks stay below the allocator's mapping threshold once it
// has risen, so a loop that drops each batch reuses the same pages.
//
// Fresh pages cost a fault each, and a whole scan's records are gigabytes: in
// a large buffer, the pages about to be written are asked of the kernel a few
// megabytes at a time in one call (Linux 5.14 on; elsewhere, or when refused,
// they fault as usual).
class RecordBuffer {
 public:
  ~RecordBuffer() { std::free(data_); }

  void append(const cloud::PointBatch& batch) {
    const std::size_t n = batch.size();
    if (size_ + n > capacity_) grow(size_ + n);
    prepare((size_ + n) * sizeof(PointRecord));
    const double *x = batch.x().data(), *y = batch.y().data(), *z = batch.z().data();
    const double *time = batch.time().data(), *range = batch.range().data(), *pan = batch.pan().data();
    const double *scan = batch.scanAngle().data(), *normalized = batch.normalizedIntensity().data();
    const std::uint64_t* shot = batch.shotIndex().data();
    const std::int32_t* line = batch.line().data();
    const std::uint16_t* intensity = batch.intensity().data();
    const std::uint8_t *number = batch.returnNumber().data(), *count = batch.numberOfReturns().data();
    const std::uint8_t* flags = batch.flags().data();
    const std::uint32_t block = batch.block();
    PointRecord* out = data_ + size_;
    for (std::size_t i = 0; i < n; ++i) {
      out[i] = PointRecord{x[i],        y[i],    z[i],    time[i],  range[i],     pan[i],       scan[i],
                           normalized[i], shot[i], line[i], block, intensity[i], number[i], count[i], flags[i], {}};
    }
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
    populated_ = 0;
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

  // Populates the whole pages of the records' first `bytes` and a stretch
  // beyond them, if not done yet (a hint: no failure is an error).
  void prepare(std::size_t bytes) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
    // Below the allocator's largest mapping threshold, pages are often reused ones.
    constexpr std::size_t kFresh = std::size_t{32} << 20, kStretch = std::size_t{4} << 20;
    if (bytes <= populated_ || capacity_ * sizeof(PointRecord) < kFresh || !populate_) return;
    const std::size_t end = std::min(capacity_ * sizeof(PointRecord), std::max(bytes, populated_ + kStretch));
    static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto from = (reinterpret_cast<std::uintptr_t>(data_) + populated_ + page - 1) & ~(page - 1);
    const auto to = (reinterpret_cast<std::uintptr_t>(data_) + end) & ~(page - 1);
    if (to > from && ::madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE) != 0) populate_ = false;
    populated_ = end;
#else
    (void)bytes;
#endif
  }

  PointRecord* data_ = nullptr;
  std::size_t size_ = 0, capacity_ = 0;
  std::size_t populated_ = 0;  // bytes of the records whose pages were asked for
  bool populate_ = true;
};

// Every point of blocks [first, last) that `selection` keeps, appended to `records`.
inline void ReadRecords(const cloud::Scan& scan, std::uint64_t first, std::uint64_t last,
                        const cloud::Selection& selection, RecordBuffer& records) {
  cloud::PointReader reader(scan, first, last, selection);
  reader.setBatchShots(kRunShots);
  cloud::PointBatch batch;
  while (reader.next(batch)) records.append(batch);
}

}  // namespace kvr::python
