#pragma once

// Placeholder until the tick manager lands: only what the block reader calls.
class NmeaTicksManager {
 public:
  // 0 when the tick count lies within the pair table and its bracket is selected.
  int FindTickInterval(unsigned long long ticks);
  // Time of week of the tick count within the selected bracket.
  double InterpolateTime(unsigned long long ticks);
};
