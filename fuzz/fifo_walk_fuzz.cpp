// A walk over a scan file's blocks with DecodeNextFifoBlock, as callers do it:
// from the first block until a short read, going on after a bad signature, with
// or without a tick manager for the block times, and Dump interleaved.
//
// Input: one control byte, then the file's blocks.
//   bits 0-1: PRF 50, 200, 500 kHz, or 0 (a header whose PRF the caller never checked)
//   bits 2-3: no tick manager, one with ten pulse pairs, one with none, one with a single pair
//   bit 4:    every other block is read by Dump instead

#include <cstdio>
#include <memory>
#include <string>

#include "fifo/block_layout.h"
#include "fuzz_support.h"
#include "kvr_decode/fifo_block.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "kvr_writers/byte_writer.h"

namespace {

using kvr::fuzz::Finding;

constexpr const char* kBlocksFile = "blocks.raw";
constexpr std::uint64_t kFirstPulse = 1000000000;  // the seeds' blocks lie among the pulses
constexpr std::uint64_t kTicksPerSecond = 50000000;

// A tick file of `pairs` pulses one second apart, each followed 0.1 s later by a
// PPS sentence naming its second.
std::vector<std::uint8_t> TickFile(int pairs) {
  kvr::writers::ByteWriter out;
  out.text("#KVRSERL").u32(1).u32(0);
  for (int i = 0; i < pairs; ++i) {
    const std::uint64_t pulse = kFirstPulse + static_cast<std::uint64_t>(i) * kTicksPerSecond;
    char sentence[64];
    const int length = std::snprintf(sentence, sizeof sentence, "$GPPPS,0000%02d.000,1,0,0,0,0\r\n", i);
    out.u64(pulse).u32(1);
    out.u64(pulse + kTicksPerSecond / 10).u32(2).u32(0).u32(0).u32(static_cast<std::uint32_t>(length));
    out.text(std::string(sentence, static_cast<std::size_t>(length)));
  }
  return out.bytes();
}

NmeaTicksManager* LoadManager(const char* name, int pairs) {
  kvr::fuzz::WriteInputFile(name, TickFile(pairs));
  const std::wstring wide(name, name + std::char_traits<char>::length(name));
  NmeaTicksManager* manager = CreateNmeaTicksManager(wide.c_str(), 0);
  if (manager == nullptr) Finding("the walk's own tick file did not load");
  return manager;
}

NmeaTicksManager* managers[4] = {};
std::FILE* dumpOutput = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kvr::fuzz::SilenceStandardOutput();  // Dump's end-of-file line
  managers[1] = LoadManager("ten_pairs.dat", 10);
  managers[2] = LoadManager("no_pairs.dat", 0);
  managers[3] = LoadManager("one_pair.dat", 1);
  dumpOutput = std::fopen("/dev/null", "w");
  if (dumpOutput == nullptr) Finding("cannot open /dev/null");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  if (size < 1) return 0;
  const unsigned control = data[0];
  static constexpr std::uint32_t kPrfs[4] = {50, 200, 500, 0};
  RawFileHeader header;
  header.prf = kPrfs[control & 3];
  NmeaTicksManager* manager = managers[(control >> 2) & 3];
  const bool interleaveDump = (control & 0x10) != 0;

  kvr::fuzz::WriteInputFile(kBlocksFile, kvr::fuzz::Bytes(data + 1, size - 1));
  std::FILE* stream = std::fopen(kBlocksFile, "rb");
  if (stream == nullptr) Finding("cannot reopen the input");
  const std::size_t blocksInFile = (size - 1) / kvr::fifo::SIZEOFFIFOBLOCK;

  FifoBlock fifoBlock;
  std::size_t calls = 0;
  for (int blockNumber = 0;; ++blockNumber) {
    if (++calls > blocksInFile + 1) Finding("the walk does not end after the file's blocks");
    if (interleaveDump && blockNumber % 2 == 1) {
      const int dumped = Dump(&stream, dumpOutput);
      if (dumped == -1) break;
      if (dumped != 0) Finding("Dump returned neither 0 nor -1");
      continue;
    }
    int result = 0;
    try {
      result = DecodeNextFifoBlock(&stream, header, blockNumber, fifoBlock, manager);
    } catch (const std::out_of_range& e) {
      // A table of one pair cannot bracket a lookup of its own tick count.
      kvr::fuzz::ExpectInvalidSubscript(e);
      continue;
    }
    if (result == -1) break;
    if (result < -2 || result > 8191) Finding("DecodeNextFifoBlock result outside -2..8191");
    if (fifoBlock.blockNumber != blockNumber) Finding("block number not stored");
    fifoBlock.flaggedShots.clear();  // per-block lists, as callers keep them
  }
  std::fclose(stream);
  return 0;
}
