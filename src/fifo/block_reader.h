#pragma once

#include <cstdio>

#include "kvr_decode/raw_file_header.h"
#include "kvr_decode/raw_shot.h"

class NmeaTicksManager;

namespace kvr::fifo {

// Reads the next whole block from the stream and decodes it into fifoBlock.
// Returns the shot count of DecodeShots, -1 on a short read (fifoBlock
// untouched), -2 on a bad block signature (time stamp and block number set,
// shots left as they were). A null stream reads as empty.
int ReadNextBlock(std::FILE* stream, const RawFileHeader& fileHeader, int blockNumber, FifoBlock& fifoBlock,
                  NmeaTicksManager* ticksManager);

}  // namespace kvr::fifo
