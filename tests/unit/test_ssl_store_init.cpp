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

using kora::test::kError;
using kora::test::kHigh;
using kora::test::LogCapture;

const std::string kRoot = "/data/data_velto/";

// The tree in the order it is made, and the message of each directory.
struct Step {
  const char* dir;
  const char* message;
};
const std::vector<Step> kSteps = {
    {".ssl/", "SSL directory unavailable \n"},
    {".ssl/certs/", "Certs directory unavailable \n"},
    {".ssl/ca_lists/", "CA lists directory unavailable \n"},
    {".ssl/di_certs/", "DI certs directory unavailable \n"},
    {".ssl/psk_table/", "PSK key directory unavailable \n"},
    {".ssl/private_keys/", "Private keys directory unavailable \n"},
    {".ssl/sessions/", "Sessions directory unavailable \n"},
    {".ssl/keyblob/", "Keyblob directory unavailable \n"},
};

using Commands = std::vector<std::pair<std::string, size_t>>;

Commands expected_commands(size_t steps) {
  Commands out;
  for (size_t i = 0; i < steps; ++i) {
    const std::string command = "mkdir " + kRoot + kSteps[i].dir;
    out.emplace_back(command, command.size());
  }
  return out;
}

Commands commands_run() {
  Commands out;
  for (const auto& call : kora::fake_shell::calls()) {
    out.emplace_back(call.command, call.length);
  }
  return out;
}

// Directories of the store that this process holds open.
std::vector<std::string> open_directories() {
  std::vector<std::string> out;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    const auto target = std::filesystem::read_symlink(entry.path(), ec).string();
    if (!ec && target.rfind("/data/data_velto", 0) == 0 && std::filesystem::is_directory(target)) {
      out.push_back(target);
    }
  }
  return out;
}

TEST(StoreInit, BuildsTreeAndProvisionsOnce) {
  LogCapture log;
  ASSERT_EQ(0, ssl_store_init());
  EXPECT_EQ(expected_commands(8), commands_run());
  for (const auto& step : kSteps) {
    EXPECT_TRUE(std::filesystem::is_directory(kRoot + step.dir)) << step.dir;
  }
  EXPECT_TRUE(std::filesystem::exists(kRoot + ".ssl/keyblob/takey.blob"));
  // Test handles of the root up to sessions/ stay open; keyblob/ is closed.
  EXPECT_EQ(8u, open_directories().size());
  for (const auto& m : log.messages()) {
    EXPECT_NE(kError, m.mask) << m.text;
  }
  // Again over a complete tree: every command is issued anew, provisioning runs again.
  kora::fake_shell::reset();
  log.clear();
  ASSERT_EQ(0, ssl_store_init());
  EXPECT_EQ(expected_commands(8), commands_run());
  EXPECT_EQ(1, kora::fake_km::generate_calls());
  EXPECT_EQ((std::vector<std::string>{"SSL_cert_store: Successfully genereated Keyblob"}), log.texts());
}

TEST(StoreInit, MissingDataRootRunsNoCommand) {
  ASSERT_EQ(0, rmdir("/data/data_velto"));
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_TRUE(kora::fake_shell::calls().empty());
  EXPECT_EQ((std::vector<std::string>{"Root directory unavailable\n"}), log.texts());
  EXPECT_EQ(kHigh, log.messages()[0].mask);
}

class StoreInitBlocked : public testing::TestWithParam<size_t> {};

// A plain file where a directory belongs stops start-up at that directory.
TEST_P(StoreInitBlocked, StopsAtFirstMissingDirectory) {
  const size_t blocked = GetParam();
  for (size_t i = 0; i < blocked; ++i) {
    ASSERT_EQ(0, mkdir((kRoot + kSteps[i].dir).c_str(), 0755));
  }
  std::string file = kRoot + kSteps[blocked].dir;
  file.pop_back();
  std::fclose(std::fopen(file.c_str(), "w"));
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_EQ(expected_commands(blocked + 1), commands_run());
  EXPECT_EQ((std::vector<std::string>{kSteps[blocked].message}), log.texts());
  EXPECT_EQ(kError, log.messages()[0].mask);
  if (blocked + 1 < kSteps.size()) {
    EXPECT_FALSE(std::filesystem::exists(kRoot + kSteps[blocked + 1].dir));
  }
  EXPECT_EQ(0, kora::fake_km::generate_calls());
}

INSTANTIATE_TEST_SUITE_P(EveryDirectory, StoreInitBlocked, testing::Range<size_t>(0, 8));

TEST(StoreInit, ProvisioningFailureKeepsTreeAndHandle) {
  kora::fake_km::set_generate(kora::fake_km::Generate::kFail);
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_TRUE(log.has("Keyblob generation failed \n", kError));
  EXPECT_EQ("Keyblob generation failed \n", log.texts().back());
  for (const auto& step : kSteps) {
    EXPECT_TRUE(std::filesystem::is_directory(kRoot + step.dir)) << step.dir;
  }
  EXPECT_EQ(9u, open_directories().size());
}

}  // namespace
