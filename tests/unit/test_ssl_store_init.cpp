#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "fakes.h"
#include "log_capture.h"
#include "ssl_store.h"

namespace {

namespace fs = std::filesystem;
using kora::test::kError;
using kora::test::LogCapture;

const std::string kRoot = "/data/data_velto/";
// The tree in the order it is made, and the message of each directory.
const std::vector<std::pair<std::string, std::string>> kSteps = {
    {".ssl/", "SSL directory unavailable \n"},
    {".ssl/certs/", "Certs directory unavailable \n"},
    {".ssl/ca_lists/", "CA lists directory unavailable \n"},
    {".ssl/di_certs/", "DI certs directory unavailable \n"},
    {".ssl/psk_table/", "PSK key directory unavailable \n"},
    {".ssl/private_keys/", "Private keys directory unavailable \n"},
    {".ssl/sessions/", "Sessions directory unavailable \n"},
    {".ssl/keyblob/", "Keyblob directory unavailable \n"},
};

size_t open_store_directories() {
  size_t n = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    const auto target = fs::read_symlink(entry.path(), ec).string();
    n += !ec && target.rfind("/data/data_velto", 0) == 0 && fs::is_directory(target);
  }
  return n;
}

// Root up to sessions/ stay open; keyblob/ is closed only when provisioning succeeds (9 + 8).
TEST(StoreInit, BuildsTreeAndLeavesDirectoriesOpen) {
  for (const auto generate : {kora::fake::Generate::kFail, kora::fake::Generate::kOk}) {
    kora::fake::generate = generate;
    LogCapture log;
    const bool ok = generate == kora::fake::Generate::kOk;
    EXPECT_EQ(ok ? 0 : -1, ssl_store_init());
    for (const auto& step : kSteps) {
      EXPECT_TRUE(fs::is_directory(kRoot + step.first)) << step.first;
    }
    EXPECT_EQ(ok, fs::exists(kRoot + ".ssl/keyblob/takey.blob"));
    EXPECT_EQ(ok ? 17u : 9u, open_store_directories());
    EXPECT_EQ(!ok, log.has("Keyblob generation failed \n", kError));
  }
}

TEST(StoreInit, MissingDataRootIsHighLevel) {
  ASSERT_EQ(0, rmdir("/data/data_velto"));
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_EQ((std::vector<std::string>{"Root directory unavailable\n"}), log.texts());
  EXPECT_EQ(kora::test::kHigh, log.messages()[0].mask);
}

class StoreInitBlocked : public testing::TestWithParam<size_t> {};

// A plain file where a directory belongs stops start-up at that directory.
TEST_P(StoreInitBlocked, StopsAtFirstMissingDirectory) {
  const size_t blocked = GetParam();
  for (size_t i = 0; i < blocked; ++i) {
    ASSERT_EQ(0, mkdir((kRoot + kSteps[i].first).c_str(), 0755));
  }
  const std::string dir = kRoot + kSteps[blocked].first;
  std::fclose(std::fopen(dir.substr(0, dir.size() - 1).c_str(), "w"));
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_EQ((std::vector<std::string>{kSteps[blocked].second}), log.texts());
  EXPECT_EQ(kError, log.messages()[0].mask);
  if (blocked + 1 < kSteps.size()) {
    EXPECT_FALSE(fs::exists(kRoot + kSteps[blocked + 1].first));
  }
  EXPECT_EQ(0, kora::fake::generate_calls);
}

INSTANTIATE_TEST_SUITE_P(EveryDirectory, StoreInitBlocked, testing::Range<size_t>(0, 8));

}  // namespace
