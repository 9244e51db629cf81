// The shell command runner: results, completion before return, concurrent callers.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "ds_system.h"

namespace {

int run(const std::string& line) { return ds_system_call(line.c_str(), line.size()); }

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(Shell, ReturnsTheShellsStatusForTheGivenLength) {
  const struct {
    const char* command;
    size_t length;
    int expected;
  } cases[] = {{"exit 3", 6, 3},
               {"mkdir /data/data_velto 2>/dev/null", 34, 1},  // exists
               {"kill -9 $$", 10, 128 + 9},
               {"exit 7; exit 9", 6, 7},  // only `length` characters run
               {nullptr, 4, -1}};
  for (const auto& c : cases) {
    EXPECT_EQ(ds_system_call(c.command, c.length), c.expected) << (c.command ? c.command : "null");
  }
}

TEST(Shell, EffectIsVisibleWhenTheCallReturns) {
  ASSERT_EQ(run("sleep 0.2 && mkdir /data/data_velto/.ssl/ && echo done > /data/data_velto/.ssl/mark"), 0);
  EXPECT_EQ(slurp("/data/data_velto/.ssl/mark"), "done\n");
}

// A different exit code per thread: a child reaped by the wrong caller shows here.
TEST(Shell, ConcurrentCallersEachGetTheirOwnResult) {
  std::vector<std::thread> threads;
  std::vector<int> wrong(6, 0);
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([t, &wrong] {
      for (int r = 0; r < 10; ++r) {
        const std::string file = "/data/t" + std::to_string(t) + "_" + std::to_string(r);
        const int rc = run("echo " + std::to_string(r) + " > " + file + "; exit " + std::to_string(10 + t));
        wrong[t] += rc != 10 + t || slurp(file) != std::to_string(r) + "\n";
      }
    });
  }
  for (auto& th : threads) {
    th.join();
  }
  EXPECT_EQ(wrong, std::vector<int>(6, 0));
}

}  // namespace
