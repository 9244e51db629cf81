#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "fakes.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_store_layout.h"

namespace {

namespace fs = std::filesystem;
using kora::test::LogCapture;

const std::vector<std::string> kTree = {"",           "certs/",        "ca_lists/", "di_certs/",
                                        "psk_table/", "private_keys/", "sessions/", "keyblob/"};

// Root up to sessions/ stay open; keyblob/ is closed only when provisioning succeeds (9 + 8).
// Each directory comes from one "mkdir" command, passed with its exact length.
TEST(StoreInit, BuildsTreeAndLeavesDirectoriesOpen) {
  for (const auto generate : {kora::fake::Generate::kFail, kora::fake::Generate::kOk}) {
    kora::fake::generate = generate;
    kora::fake::shell_calls.clear();
    LogCapture log;
    const bool ok = generate == kora::fake::Generate::kOk;
    EXPECT_EQ(ok ? 0 : -1, ssl_store_init());
    std::vector<std::string> commands;
    for (const auto& dir : kTree) {
      EXPECT_TRUE(fs::is_directory("/data/data_velto/.ssl/" + dir)) << dir;
      EXPECT_EQ("/data/data_velto/.ssl/" + dir, ssl_store_layout_dir(commands.size()));  // same order
      const std::string command = "mkdir /data/data_velto/.ssl/" + dir;
      commands.push_back(command + "|" + std::to_string(command.size()));
    }
    EXPECT_TRUE(commands == kora::fake::shell_calls && ssl_store_layout_dir(kTree.size()) == nullptr);
    EXPECT_EQ(ok, fs::exists("/data/data_velto/.ssl/keyblob/takey.blob"));
    size_t open = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code ec;
      const auto target = fs::read_symlink(entry.path(), ec).string();
      open += !ec && target.rfind("/data/data_velto", 0) == 0 && fs::is_directory(target);
    }
    EXPECT_EQ(ok ? 17u : 9u, open);
    EXPECT_EQ(!ok, log.has("Keyblob generation failed \n", kora::test::kError));
  }
}

TEST(StoreInit, MissingRootIsHighLevelAndBlockedDirectoryStops) {
  LogCapture log;
  ASSERT_EQ(0, rmdir("/data/data_velto"));
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_TRUE(log.has("Root directory unavailable\n", kora::test::kHigh));
  ASSERT_TRUE(fs::create_directory("/data/data_velto"));
  // A dangling link where a directory belongs stops the build there, whichever directory it is.
  const char* const kWhat[] = {"SSL",     "Certs",        "CA lists", "DI certs",
                               "PSK key", "Private keys", "Sessions", "Keyblob"};
  for (size_t i = 0; i < kTree.size(); ++i) {
    const fs::path dir = fs::path("/data/data_velto/.ssl/" + kTree[i]).parent_path();
    fs::create_symlink("/nowhere", dir);
    EXPECT_EQ(-1, ssl_store_init()) << dir;
    EXPECT_TRUE(log.has(kWhat[i] + std::string(" directory unavailable \n"), kora::test::kError)) << dir;
    EXPECT_TRUE(i + 1 == kTree.size() || !fs::exists("/data/data_velto/.ssl/" + kTree[i + 1])) << dir;
    fs::remove(dir);
    fs::create_directory(dir);
  }
}

}  // namespace
