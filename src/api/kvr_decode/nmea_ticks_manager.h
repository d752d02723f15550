#pragma once

#include "kvr_decode/export.h"

// Converts scanner tick counts into GNSS time of week, from the tick file
// ("Serial.dat") recorded beside a scan. Callers hold it only as a pointer:
// create it, pass it to the block reader, delete it.
class NmeaTicksManager;

// Reads the tick file and pairs each pulse with the sentence time that names
// it; timeOffset seconds are added to every time. Returns null when the file
// cannot be opened, its signature is wrong or its version is 0 (nothing is
// logged). A malformed ZDA, PPS or "UTC" line can raise std::out_of_range; a
// sentence record of 1024 bytes or more stops the process.
KVR_API NmeaTicksManager* CreateNmeaTicksManager(const wchar_t* nmeaTicksFilename, int timeOffset);

// Releases a manager made by CreateNmeaTicksManager; null is ignored.
KVR_API void DeleteNmeaTicksManager(NmeaTicksManager* ticksManager);
