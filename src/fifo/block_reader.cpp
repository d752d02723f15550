#include "fifo/block_reader.h"

#include <array>
#include <string>
#include <string_view>

#include "diag/error_manager.h"
#include "fifo/block_format.h"
#include "fifo/shot_decoder.h"
#include "nmea/nmea_ticks_manager.h"
#include "optics/conversions.h"
#include "platform/stream_reader.h"

namespace kvr::fifo {

namespace {

// The entry names the form without the ticks manager; readers of old logs search for it.
constexpr std::string_view kDecodeNextFifoBlockContext =
    "int DecodeNextFifoBlock(FILE **fp, RawFileHeader &fileHeader, int blockNumber, FifoBlock &fifoBlock)";
constexpr std::string_view kBadSignatureMessage = "!!Error in DmaBlockHeader Signature!!";

// Seconds of the block's time stamp: time of week from the manager's pulse pairs,
// -1.0 when they do not bracket it, or seconds since the tick counter started
// when there is no manager.
double CycleSyncTow(std::uint64_t ticks, NmeaTicksManager* ticksManager) {
  if (ticksManager == nullptr) return optics::TimeInSecs(ticks);
  if (ticksManager->FindTickInterval(ticks) != 0) return -1.0;
  return ticksManager->InterpolateTime(ticks);
}

}  // namespace

int ReadNextBlock(std::FILE* stream, const RawFileHeader& fileHeader, int blockNumber, FifoBlock& fifoBlock,
                  NmeaTicksManager* ticksManager) {
  std::array<std::uint8_t, SIZEOFFIFOBLOCK> block;  // filled whole, or not used
  if (stream == nullptr || stream::ReadBytes(stream, block.data(), block.size()) < block.size()) return -1;

  const DmaBlockHeader header = ReadDmaBlockHeader(block);
  fifoBlock.CycleSyncTimeStamp = header.cycleSyncTimeStamp;
  fifoBlock.blockNumber = blockNumber;
  if (header.signature != layout::kBlockSignature) {
    Log(kDecodeNextFifoBlockContext, std::string(kBadSignatureMessage),
        {Detail("DmaBlockHeader = ", header.signature),
         Detail("CycleSyncTimeStamp = ", static_cast<long long>(header.cycleSyncTimeStamp)),
         Detail("Cast BlockNumber = ", header.castBlockNumber), Detail("Continuous BlockNumber = ", blockNumber)});
    return -2;
  }
  return DecodeShots(block, fileHeader.prf, CycleSyncTow(header.cycleSyncTimeStamp, ticksManager), fifoBlock);
}

}  // namespace kvr::fifo
