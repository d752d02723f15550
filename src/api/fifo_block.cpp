#include "kvr_decode/fifo_block.h"

#include "fifo/block_dump.h"
#include "fifo/block_reader.h"
#include "fifo/shot_decoder.h"

int DecodeFifoBlock(unsigned char* fifoBlockBuffer, RawFileHeader& fileHeader, int /*blockNumber*/,
                    FifoBlock& fifoBlock, double cycleSyncTow) {
  const kvr::fifo::BlockBytes block(fifoBlockBuffer, kvr::fifo::SIZEOFFIFOBLOCK);
  return kvr::fifo::DecodeShots(block, fileHeader.prf, cycleSyncTow, fifoBlock);
}

int DecodeNextFifoBlock(std::FILE** fp, RawFileHeader& fileHeader, int blockNumber, FifoBlock& fifoBlock,
                        NmeaTicksManager* ticksManager) {
  return kvr::fifo::ReadNextBlock(fp == nullptr ? nullptr : *fp, fileHeader, blockNumber, fifoBlock, ticksManager);
}

int Dump(std::FILE** in, std::FILE* out) { return kvr::fifo::DumpBlock(in == nullptr ? nullptr : *in, out); }
