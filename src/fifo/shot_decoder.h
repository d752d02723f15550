#pragma once

#include <cstdint>

#include "fifo/block_format.h"
#include "kvr_decode/raw_shot.h"

namespace kvr::fifo {

// Decodes the shots of one block into fifoBlock.shots (emptied first, storage
// kept); appends flagged shot indices to fifoBlock.flaggedShots. Shot times
// count from fifoBlock.CycleSyncTimeStamp at one shot per PRF period (prf in
// kHz); cycleSyncTow < 0 marks the block's time of day as unknown. Returns the
// number of shots counted: a shot whose return words run off the block is
// counted but not kept, and the overrun is logged.
int DecodeShots(BlockBytes block, std::uint32_t prf, double cycleSyncTow, FifoBlock& fifoBlock);

}  // namespace kvr::fifo
