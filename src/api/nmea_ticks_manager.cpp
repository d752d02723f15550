#include "kvr_decode/nmea_ticks_manager.h"

#include "nmea/nmea_ticks_manager.h"

NmeaTicksManager* CreateNmeaTicksManager(const wchar_t* nmeaTicksFilename, int timeOffset) {
  return kvr::nmea::CreateTicksManager(nmeaTicksFilename, timeOffset);
}

void DeleteNmeaTicksManager(NmeaTicksManager* ticksManager) { kvr::nmea::DeleteTicksManager(ticksManager); }
