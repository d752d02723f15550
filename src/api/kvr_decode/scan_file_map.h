#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <vector>

#include "kvr_decode/export.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "kvr_decode/raw_file_header.h"
#include "kvr_decode/raw_shot.h"

// Where one scan line begins and how many shots it holds.
struct ScanLineEntry {
  std::uint32_t blockNumber = 0;       // FIFO block of the line's first shot, from 0
  std::uint32_t shotIndexInBlock = 0;  // that shot's position among its block's shots
  std::int32_t lineFlag = -1;          // scan-direction bit of the line
  std::int32_t shotCount = 0;          // shots of the line; 0 while the line is open
  std::int32_t statusWordOffset = -1;  // byte offset of the first shot's status word in its block
  // Shots carrying an event mark, counted from the first shot of the block in which the line began.
  std::vector<std::uint32_t> eventShots;
};

// The index of a raw scan file by scan line, with file-wide maxima and the
// statistics of normalized intensity.
//
// Ownership: the record owns what its header copy `fileHeader` points to (the
// four texts, from the C allocator, and the side table grid). GetScanFileMap
// releases the copy's texts and grid before it reads the header again;
// LoadScanFileMap frees each text it replaces and leaves the grid alone;
// ReleaseScanFileMap frees all of it (pointers become null) when the caller is
// done, after which the record may be reused. Do not share these pointers with
// another RawFileHeader. Everything else is held by value; `histogram` is only
// ever null outside a build.
typedef struct _ScanFileMap {
  char mapSignature[8] = {};            // "#KVRMAPF" once saved; no terminator
  std::int32_t mapVersion = 0;          // 2 after a build
  std::int32_t currentLineFlag = -1;    // direction bit of the line being walked
  std::int32_t maxShotsPerLine = 0;
  std::int32_t numberOfScanLines = -1;  // valid line indices are 0 .. numberOfScanLines - 1
  std::int32_t shotsInCurrentLine = 0;
  std::uint32_t spareA = 0;
  std::uint16_t maxReturnsPerShot = 0;
  std::uint32_t dataStartOffset = 0;  // file position of the first FIFO block
  std::uint64_t dataSize = 0;         // blockCount x 65536 - dataStartOffset; not saved
  std::int32_t blockCount = 0;
  std::int32_t maxShotsPerBlock = 0;
  char scanFileName[1024] = {};  // zero-terminated bytes; not the whole path (see GetScanFileMap)
  std::map<std::int32_t, ScanLineEntry> scanLines;  // key -1: the shots before the first line
  std::uint32_t spareB = 0;
  float shotsPerLineEstimate = 1.0f;
  RawFileHeader fileHeader;
  FifoBlock fifoBlock;            // the blocks of the line last fetched (the shot cache)
  double* histogram = nullptr;    // always null outside a build
  std::uint64_t spareC = 0;
  double binWidth = 0.0;
  double minNormalizedIntensity = 1.7976931348623157e308;
  double maxNormalizedIntensity = 0.0;
  double a1 = 200.0;  // intensity scale of the high-intensity branch
  double a2 = 4.0;    // exponent of the high-intensity branch
  double a3 = 0.43;   // overall gain
  double a4 = 2.3;    // additive term of the range factor
  double a5 = 6.1;    // reference range of the range factor, metres
  double intensityAt95 = 1.0;
  std::int32_t numberOfBins = 4096;
  double gamma = 0.5;
  std::uint32_t validSampleCount = 0;
  std::vector<std::uint64_t> returnCounts = std::vector<std::uint64_t>(4, 0);  // in-range returns by position
  std::uint32_t lastEncoderValue = 131072;
  std::uint32_t encoderWrapParity = 0;
} ScanFileMap;

// Builds the map of a raw scan file (two passes over its blocks). The file's
// path with ".NormalizationParams.txt" appended may override the intensity
// model and the bin count. 0, or -1 when the file cannot be opened as a scan
// file or the histogram cannot be allocated (one log entry each).
KVR_API int GetScanFileMap(const wchar_t* input_data, ScanFileMap& scanFileMap);

// Writes the map file; the record comes back with mapSignature "#KVRMAPF" and
// numberOfBins 0. 0, or -1 when the file cannot be created.
KVR_API int SaveScanFileMap(wchar_t* scanFileName, ScanFileMap& scanFileMap);

// Reads a map file into the record. 0, or -1 when the file cannot be opened.
KVR_API int LoadScanFileMap(wchar_t* filename, ScanFileMap& scanFileMap);

// Releases what the map's header copy owns (texts, side table grid); safe on a
// record that owns nothing.
KVR_API void ReleaseScanFileMap(ScanFileMap& scanFileMap);

// Fills `shots` with the shots of one scan line (the index is clamped to the
// map's lines) read from the open scan file, and returns their number.
KVR_API int GetShotsFromScanLineIndex(int scanLineIndex, FILE** fp, ScanFileMap& scanFileMap,
                                      std::vector<RawShot>& shots, NmeaTicksManager* ticksManager);

// The line at a relative position (0.0 first line, 1.0 last); not clamped.
KVR_API int GetScanLineIndexFromRelativePosition(double position, ScanFileMap& scanFileMap);

// Measures line rate, angular speed and scan angles from four lines of the data
// and writes them into the map's header copy. 0, or 1 when a line was empty.
KVR_API int UpdateScanParameters(FILE* fp, ScanFileMap& scanFileMap);
