#pragma once

#include "kvr_decode/export.h"

// Process-wide debugging switches 0-5. Stored and reported only; decoding never
// consults them.
KVR_API int SetCheat(int cheatID, int value);
KVR_API int QueryCheat(int cheatID);
