#include "diag/run_time_switches.h"

#include <string_view>

#include "diag/error_manager.h"

namespace kvr::diag {

namespace {

constexpr unsigned kSwitchCount = 6;
// Switch 0 (word byte-order reversal) starts off, 1 off, 2-5 on.
bool switches[kSwitchCount] = {false, false, true, true, true, true};

constexpr std::string_view kSetCheatContext = "int SetCheat(int cheatID, int value)";
constexpr std::string_view kFlipMessage =
    "Requested FLIP of ENDIAN flag in KVR_DECODE. This call only set a flag that will tell KVR_DECODE to "
    "reverse or not the the byte order. It does not report anything about the state of ENDIANESS of the "
    "data.";
constexpr std::string_view kWasFalse =
    "The current state of the flag is FALSE and it will be set to TRUE, which means that the byte order of "
    "WORDS (4 bytes) of the DMA block will be Reversed";
constexpr std::string_view kWasTrue =
    "The current state of the flag is TRUE and it will be set to FALSE, which means that the byte order of "
    "WORDS (4 bytes) of the DMA block will NOT be Touched";

}  // namespace

int SetSwitch(int cheatID, int value) {
  // Negative ids compare as huge unsigned values and are ignored like any id above 5.
  const unsigned id = static_cast<unsigned>(cheatID);
  if (id >= kSwitchCount) return 0;
  if (id == 0) {
    // Switch 0 toggles; the value argument plays no part.
    Log(kSetCheatContext, std::string(kFlipMessage), {std::string(switches[0] ? kWasTrue : kWasFalse)});
    switches[0] = !switches[0];
    return 0;
  }
  switches[id] = value != 0;
  return 0;
}

int QuerySwitch(int cheatID) {
  const unsigned id = static_cast<unsigned>(cheatID);
  if (id >= kSwitchCount) return 0;
  return switches[id] ? 1 : 0;
}

}  // namespace kvr::diag
