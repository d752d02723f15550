// CreateNmeaTicksManager on any tick file, then tick-to-time lookups around
// every pair it built, in file order as the block reader makes them.
//
// A sentence record of 1024 bytes or more stops the process by design; inputs
// that reach one are left out. The file's header word, which the reader skips,
// gives the time offset.

#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "kvr_decode/nmea_ticks_manager.h"
#include "nmea/nmea_ticks_manager.h"
#include "nmea/tick_layout.h"
#include "platform/little_endian.h"

namespace {

using kvr::fuzz::Bytes;
using kvr::fuzz::Finding;

constexpr const char* kTickFile = "Serial.dat";
constexpr const wchar_t* kTickFileWide = L"Serial.dat";
constexpr std::size_t kLookedUpPairs = 64;

int TimeOffset(Bytes file) {
  kvr::le::ByteCursor in(file);
  in.skip(kvr::nmea::layout::kHeaderWordOffset);
  return static_cast<int>(in.u32());  // bytes past the end read as zero
}

void LookUp(NmeaTicksManager& manager, std::uint64_t ticks) {
  try {
    if (manager.FindTickInterval(ticks) == 0) manager.InterpolateTime(ticks);
  } catch (const std::out_of_range& e) {
    // A table of one pair, or pulses out of order, leave a bracket outside the table.
    kvr::fuzz::ExpectInvalidSubscript(e);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kvr::fuzz::TrimLog();
  const Bytes file(data, size);
  if (kvr::test::TickFileReachesOversizedSentence(file)) return 0;
  kvr::fuzz::WriteInputFile(kTickFile, file);

  kvr::fuzz::LeftOpenStreams leftOpen;
  NmeaTicksManager* manager = nullptr;
  try {
    manager = CreateNmeaTicksManager(kTickFileWide, TimeOffset(file));
  } catch (const std::out_of_range& e) {
    kvr::fuzz::ExpectSentenceOutOfRange(e);
  }
  leftOpen.Close();  // a wrong signature leaves the file open by design
  if (manager == nullptr) return 0;

  if (manager->ticksFile != nullptr) Finding("a loaded manager holds its file open");
  if (manager->lowIndex != 0 || manager->highIndex != 1) Finding("a loaded manager's bracket is not (0, 1)");
  std::vector<std::uint64_t> pairTicks;
  for (const auto& pair : *manager->tickTimes) {
    if (pairTicks.size() == kLookedUpPairs) break;
    pairTicks.push_back(pair.ticks);
  }
  if (!manager->tickTimes->empty()) pairTicks.push_back(manager->tickTimes->back().ticks);
  LookUp(*manager, 0);
  for (std::size_t i = 0; i < pairTicks.size(); ++i) {
    const std::uint64_t t = pairTicks[i];
    LookUp(*manager, t - 1);
    LookUp(*manager, t);
    LookUp(*manager, t + 1);
    if (i + 1 < pairTicks.size()) LookUp(*manager, t / 2 + pairTicks[i + 1] / 2);
  }
  LookUp(*manager, ~std::uint64_t{0});
  DeleteNmeaTicksManager(manager);
  return 0;
}
