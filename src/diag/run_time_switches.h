#pragma once

namespace kvr::diag {

// Six process-wide debugging switches. They are stored and reported only:
// no decoder consults them.
int SetSwitch(int cheatID, int value);
int QuerySwitch(int cheatID);

}  // namespace kvr::diag
