// The shell command runner: results and completion before return.
#include <gtest/gtest.h>

#include <string>

#include "ds_system.h"
#include "file_bytes.h"

namespace {

using kora::test::slurp;

TEST(Shell, ReturnsTheShellsStatusForTheGivenLengthOnceTheEffectIsVisible) {
  EXPECT_EQ(ds_system_call("kill -9 $$", 10), 128 + 9);
  EXPECT_EQ(ds_system_call("exit 7; exit 9", 6), 7) << "only `length` characters run";
  EXPECT_EQ(ds_system_call(nullptr, 4), -1);
  const std::string line =
      "sleep 0.2 && mkdir /data/data_velto/.ssl/ && echo done > /data/data_velto/.ssl/mark";
  ASSERT_EQ(ds_system_call(line.c_str(), line.size()), 0);
  EXPECT_EQ(slurp("/data/data_velto/.ssl/mark"), "done\n");
}

}  // namespace
