#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "fake_km.h"
#include "fake_shell.h"
#include "log_capture.h"
#include "ssl_store.h"

namespace {

namespace fs = std::filesystem;
using kora::test::kError;
using kora::test::kHigh;
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

// The mkdir commands of the first `steps` steps, each with its length.
std::vector<std::pair<std::string, size_t>> commands(size_t steps) {
  std::vector<std::pair<std::string, size_t>> out;
  for (size_t i = 0; i < steps; ++i) {
    const std::string command = "mkdir " + kRoot + kSteps[i].first;
    out.emplace_back(command, command.size());
  }
  return out;
}

size_t open_store_directories() {
  size_t n = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    const auto target = fs::read_symlink(entry.path(), ec).string();
    n += !ec && target.rfind("/data/data_velto", 0) == 0 && fs::is_directory(target);
  }
  return n;
}

void expect_tree() {
  for (const auto& step : kSteps) {
    EXPECT_TRUE(fs::is_directory(kRoot + step.first)) << step.first;
  }
}

TEST(StoreInit, BuildsTreeAndProvisionsOnce) {
  LogCapture log;
  ASSERT_EQ(0, ssl_store_init());
  EXPECT_EQ(commands(8), kora::fake_shell::calls);
  expect_tree();
  EXPECT_TRUE(fs::exists(kRoot + ".ssl/keyblob/takey.blob"));
  EXPECT_EQ(8u, open_store_directories());  // root up to sessions/ stay open; keyblob/ is closed
  for (const auto& m : log.messages()) {
    EXPECT_NE(kError, m.mask) << m.text;
  }
  // Again over a complete tree: every command is issued anew, provisioning runs again.
  kora::fake_shell::calls.clear();
  log.clear();
  ASSERT_EQ(0, ssl_store_init());
  EXPECT_EQ(commands(8), kora::fake_shell::calls);
  EXPECT_EQ(1, kora::fake_km::generate_calls);
  EXPECT_EQ((std::vector<std::string>{"SSL_cert_store: Successfully genereated Keyblob"}), log.texts());
}

TEST(StoreInit, MissingDataRootRunsNoCommand) {
  ASSERT_EQ(0, rmdir("/data/data_velto"));
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_TRUE(kora::fake_shell::calls.empty());
  EXPECT_EQ((std::vector<std::string>{"Root directory unavailable\n"}), log.texts());
  EXPECT_EQ(kHigh, log.messages()[0].mask);
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
  EXPECT_EQ(commands(blocked + 1), kora::fake_shell::calls);
  EXPECT_EQ((std::vector<std::string>{kSteps[blocked].second}), log.texts());
  EXPECT_EQ(kError, log.messages()[0].mask);
  if (blocked + 1 < kSteps.size()) {
    EXPECT_FALSE(fs::exists(kRoot + kSteps[blocked + 1].first));
  }
  EXPECT_EQ(0, kora::fake_km::generate_calls);
}

INSTANTIATE_TEST_SUITE_P(EveryDirectory, StoreInitBlocked, testing::Range<size_t>(0, 8));

TEST(StoreInit, ProvisioningFailureKeepsTreeAndHandle) {
  kora::fake_km::generate = kora::fake_km::Generate::kFail;
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_EQ("Keyblob generation failed \n", log.texts().back());
  EXPECT_EQ(kError, log.messages().back().mask);
  expect_tree();
  EXPECT_EQ(9u, open_store_directories());
}

}  // namespace
