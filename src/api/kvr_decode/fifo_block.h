#pragma once

#include <cstdio>

#include "kvr_decode/export.h"
#include "kvr_decode/raw_file_header.h"
#include "kvr_decode/raw_shot.h"

class NmeaTicksManager;

// Decodes the shots of one whole 65536-byte FIFO block into fifoBlock.shots
// (emptied first) and appends the indices of flagged shots to
// fifoBlock.flaggedShots (never cleared here). fifoBlock.CycleSyncTimeStamp must
// hold the block's time stamp; only fileHeader.prf is read; blockNumber is not
// used. cycleSyncTow is the block's time in seconds, negative when unknown (every
// shot's shotTow is then -1.0). Returns the number of shots counted; a shot that
// runs off the end of the block is logged and not kept.
KVR_API int DecodeFifoBlock(unsigned char* fifoBlockBuffer, RawFileHeader& fileHeader, int blockNumber,
                            FifoBlock& fifoBlock, double cycleSyncTow);

// Reads the next 65536-byte block from *fp and decodes it. The block time is the
// time of week from ticksManager, or seconds since the scanner's tick counter
// started when ticksManager is null. Returns the shot count, -1 when a whole
// block could not be read (the normal end of a walk; fifoBlock untouched), -2
// for a bad block signature (logged; the stream has still moved on a block).
KVR_API int DecodeNextFifoBlock(std::FILE** fp, RawFileHeader& fileHeader, int blockNumber, FifoBlock& fifoBlock,
                                NmeaTicksManager* ticksManager);

// Reads the next block from *in and writes a one-line summary of its block header
// to out. Returns 0, or -1 at the end of the file (reported on standard output).
KVR_API int Dump(std::FILE** in, std::FILE* out);
