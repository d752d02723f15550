#include "kvr_decode/nmea_ticks_manager.h"

// Placeholder until the tick manager lands.
int NmeaTicksManager::FindTickInterval(unsigned long long) { return -1; }

double NmeaTicksManager::InterpolateTime(unsigned long long) { return -1.0; }
