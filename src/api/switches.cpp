#include "kvr_decode/switches.h"

#include "diag/run_time_switches.h"

int SetCheat(int cheatID, int value) { return kvr::diag::SetSwitch(cheatID, value); }

int QueryCheat(int cheatID) { return kvr::diag::QuerySwitch(cheatID); }
