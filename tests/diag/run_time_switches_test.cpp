#include <gtest/gtest.h>

#include "kvr_decode/switches.h"
#include "support/temp_dir_test_base.h"

namespace kvr {
namespace {

class RunTimeSwitches : public test::InTempDir {
 protected:
  void TearDown() override {
    // The switches are process-wide: put back the load-time defaults.
    if (QueryCheat(0) == 1) SetCheat(0, 0);
    SetCheat(1, 0);
    for (int id = 2; id <= 5; ++id) SetCheat(id, 1);
  }
};

TEST_F(RunTimeSwitches, StartFromTheirLoadTimeDefaults) {
  EXPECT_EQ(QueryCheat(0), 0);
  EXPECT_EQ(QueryCheat(1), 0);
  for (int id = 2; id <= 5; ++id) EXPECT_EQ(QueryCheat(id), 1) << id;
  EXPECT_EQ(QueryCheat(6), 0);
  EXPECT_EQ(QueryCheat(-1), 0);
}

TEST_F(RunTimeSwitches, SwitchZeroTogglesWhateverTheValueAndLogsTheStateBefore) {
  EXPECT_EQ(SetCheat(0, 0), 0);
  EXPECT_EQ(QueryCheat(0), 1);
  EXPECT_EQ(SetCheat(0, 1), 0);
  EXPECT_EQ(QueryCheat(0), 0);
  EXPECT_EQ(SetCheat(0, 1), 0);
  EXPECT_EQ(QueryCheat(0), 1);

  const auto entries = logEntries();
  ASSERT_EQ(entries.size(), 3u);
  const std::string message =
      "Requested FLIP of ENDIAN flag in KVR_DECODE. This call only set a flag that will tell KVR_DECODE to "
      "reverse or not the the byte order. It does not report anything about the state of ENDIANESS of the data.";
  const std::string wasFalse =
      "The current state of the flag is FALSE and it will be set to TRUE, which means that the byte order of "
      "WORDS (4 bytes) of the DMA block will be Reversed";
  const std::string wasTrue =
      "The current state of the flag is TRUE and it will be set to FALSE, which means that the byte order of "
      "WORDS (4 bytes) of the DMA block will NOT be Touched";
  for (const auto& e : entries) {
    EXPECT_EQ(e.context, "int SetCheat(int cheatID, int value)");
    EXPECT_EQ(e.message, message);
  }
  EXPECT_EQ(entries[0].details, std::vector<std::string>{wasFalse});
  EXPECT_EQ(entries[1].details, std::vector<std::string>{wasTrue});
  EXPECT_EQ(entries[2].details, std::vector<std::string>{wasFalse});
}

TEST_F(RunTimeSwitches, PlainSwitchesTakeValueNonZeroAndLogNothing) {
  EXPECT_EQ(SetCheat(3, 7), 0);
  EXPECT_EQ(QueryCheat(3), 1);
  EXPECT_EQ(SetCheat(3, 0), 0);
  EXPECT_EQ(QueryCheat(3), 0);
  EXPECT_EQ(SetCheat(1, -4), 0);
  EXPECT_EQ(QueryCheat(1), 1);
  EXPECT_TRUE(logEntries().empty());
}

TEST_F(RunTimeSwitches, UnknownIdsChangeNothing) {
  for (int id : {6, 9, -1, -2147483647 - 1}) {
    EXPECT_EQ(SetCheat(id, 0), 0);
    EXPECT_EQ(QueryCheat(id), 0);
  }
  EXPECT_EQ(QueryCheat(0), 0);
  EXPECT_EQ(QueryCheat(1), 0);
  for (int id = 2; id <= 5; ++id) EXPECT_EQ(QueryCheat(id), 1);
  EXPECT_TRUE(logEntries().empty());
}

}  // namespace
}  // namespace kvr
