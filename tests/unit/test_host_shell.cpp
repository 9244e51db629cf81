// The shell command runner: results, completion before return, concurrent callers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ds_system.h"

namespace {

int run(const std::string& line) { return ds_system_call(line.c_str(), line.size()); }

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

struct StatusCase {
  const char* command;
  size_t length;  // 0: the whole command
  int expected;
};

class ShellStatus : public testing::TestWithParam<StatusCase> {};

TEST_P(ShellStatus, ReturnsTheShellsStatus) {
  const StatusCase& c = GetParam();
  const size_t len = c.length != 0 ? c.length : std::strlen(c.command);
  EXPECT_EQ(ds_system_call(c.command, len), c.expected) << c.command;
}

INSTANTIATE_TEST_SUITE_P(Cases, ShellStatus,
                         testing::Values(StatusCase{"true", 0, 0}, StatusCase{"exit 3", 0, 3},
                                         StatusCase{"mkdir /data/data_velto 2>/dev/null", 0,
                                                    1},  // exists already
                                         StatusCase{"kill -9 $$", 0, 128 + 9},
                                         StatusCase{"exit 7; exit 9", 6, 7},  // only `length` characters run
                                         StatusCase{"no-such-command-here 2>/dev/null", 0, 127}));

TEST(Shell, NullCommandIsRefused) { EXPECT_EQ(ds_system_call(nullptr, 4), -1); }

TEST(Shell, EffectIsVisibleWhenTheCallReturns) {
  ASSERT_EQ(run("mkdir /data/data_velto/.ssl/ && sleep 0.2 && echo done > /data/data_velto/.ssl/mark"), 0);
  struct stat st {};
  EXPECT_EQ(stat("/data/data_velto/.ssl/", &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(slurp("/data/data_velto/.ssl/mark"), "done\n");
}

TEST(Shell, ConcurrentCallersEachGetTheirOwnResult) {
  constexpr int kThreads = 6;
  constexpr int kRounds = 10;
  std::vector<std::thread> threads;
  std::vector<int> wrong(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &wrong] {
      for (int r = 0; r < kRounds; ++r) {
        const std::string file = "/data/t" + std::to_string(t) + "_" + std::to_string(r);
        // A different exit code per thread: a child reaped by the wrong caller shows up here.
        const int rc = run("echo " + std::to_string(r) + " > " + file + "; exit " + std::to_string(10 + t));
        if (rc != 10 + t || slurp(file) != std::to_string(r) + "\n") {
          ++wrong[t];
        }
      }
    });
  }
  for (auto& th : threads) {
    th.join();
  }
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(wrong[t], 0) << "thread " << t;
  }
}

}  // namespace
