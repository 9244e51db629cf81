// Start-up and sealing at rest: the store's tree, the key material (key blob and nonce)
// provisioned into it once, and the sealed files written and read with that material.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fakes.h"
#include "file_bytes.h"
#include "heap_watch.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"
#include "ssl_store_layout.h"
#include "ssl_util.h"

namespace kora::test {

namespace fs = std::filesystem;

const std::string kBlobPath = "/data/data_velto/.ssl/keyblob/takey.blob";
const std::string kNoncePath = "/data/data_velto/.ssl/keyblob/takey.nonce";
const std::string kSuccess = "SSL_cert_store: Successfully genereated Keyblob";

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
    EXPECT_EQ(ok, fs::exists(kBlobPath));
    size_t open = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code ec;
      const auto target = fs::read_symlink(entry.path(), ec).string();
      open += !ec && target.rfind("/data/data_velto", 0) == 0 && fs::is_directory(target);
    }
    EXPECT_EQ(ok ? 17u : 9u, open);
    EXPECT_EQ(!ok, log.has("Keyblob generation failed \n", kError));
  }
}

TEST(StoreInit, MissingRootIsHighLevelAndBlockedDirectoryStops) {
  LogCapture log;
  ASSERT_EQ(0, rmdir("/data/data_velto"));
  EXPECT_EQ(-1, ssl_store_init());
  EXPECT_TRUE(log.has("Root directory unavailable\n", kHigh));
  ASSERT_TRUE(fs::create_directory("/data/data_velto"));
  // A dangling link where a directory belongs stops the build there, whichever directory it is.
  const char* const kWhat[] = {"SSL",     "Certs",        "CA lists", "DI certs",
                               "PSK key", "Private keys", "Sessions", "Keyblob"};
  for (size_t i = 0; i < kTree.size(); ++i) {
    const fs::path dir = fs::path("/data/data_velto/.ssl/" + kTree[i]).parent_path();
    fs::create_symlink("/nowhere", dir);
    EXPECT_EQ(-1, ssl_store_init()) << dir;
    EXPECT_TRUE(log.has(kWhat[i] + std::string(" directory unavailable \n"), kError)) << dir;
    EXPECT_TRUE(i + 1 == kTree.size() || !fs::exists("/data/data_velto/.ssl/" + kTree[i + 1])) << dir;
    fs::remove(dir);
    fs::create_directory(dir);
  }
}

class Keyblob : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, system("mkdir -p " KORA_STORE_KEYBLOB_DIR " " KORA_STORE_CERTS_DIR)); }
  static int provide() { return ssl_store_generate_keyblob_store_in_securefs_file(); }
  LogCapture log_;
};

TEST_F(Keyblob, FirstStartGeneratesAndStoresBothOnce) {
  ASSERT_EQ(0, provide());
  EXPECT_EQ((std::vector<std::string>{"Keyblob is generated", kSuccess}), log_.texts());
  EXPECT_EQ((std::vector<std::string>{kBlobPath + " 65 511", kNoncePath + " 65 511"}), fake::put_calls);
  ASSERT_EQ(fake::kBlobLength, g_keyblob_len);
  EXPECT_EQ(std::string(gp_tz_keyblob, gp_tz_keyblob + g_keyblob_len), slurp(kBlobPath));
  EXPECT_EQ(std::string(gp_ta_nonceBuf, gp_ta_nonceBuf + 12), slurp(kNoncePath));
  log_.clear();
  ASSERT_EQ(0, provide());  // already in memory: nothing is written again
  EXPECT_TRUE(log_.texts() == std::vector<std::string>{kSuccess} && fake::put_calls.size() == 2u);
}

TEST_F(Keyblob, LaterStartLoadsNonceOfAnyLength) {
  std::ofstream(kBlobPath) << "blob";
  std::ofstream(kNoncePath) << std::string(40, 'n');
  ASSERT_EQ(0, provide());
  EXPECT_EQ("blob", std::string(gp_tz_keyblob, gp_tz_keyblob + g_keyblob_len));
  EXPECT_TRUE(std::string(40, 'n') == std::string(gp_ta_nonceBuf, gp_ta_nonceBuf + 40) &&
              fake::generate_calls == 0);
}

// A null blob from the service counts as success with no nonce and no files.
TEST_F(Keyblob, NullBlobIsSuccess) {
  fake::generate = fake::Generate::kNullBlob;
  ASSERT_EQ(0, provide());
  EXPECT_TRUE(gp_ta_nonceBuf == nullptr && fake::put_calls.empty());
}

struct FailureRow {
  const char* label;
  int inject;  // 0 generate, 1/2 the n-th put, 3 blob file without nonce file, 4 no memory for the nonce
  std::string message;
  bool blob_file;  // takey.blob on disk afterwards
  int status = -1;
};
std::ostream& operator<<(std::ostream& os, const FailureRow& r) { return os << r.label; }

class KeyblobFailure : public Keyblob, public testing::WithParamInterface<FailureRow> {};

TEST_P(KeyblobFailure, ReportsAndCleansUp) {
  const FailureRow& row = GetParam();
  fake::generate = row.inject == 0 ? fake::Generate::kFail : fake::Generate::kOk;
  fake::fail_put_on_call = row.inject == 1 || row.inject == 2 ? row.inject : 0;
  if (row.inject == 3) {
    std::ofstream(kBlobPath) << "blob";
  } else if (row.inject == 4) {
    heap::refuse_next_calloc(12, 1);
  }
  uint8_t warm_up[1];
  ASSERT_EQ(0, ssl_get_random_number(1, warm_up));  // the random source's first use allocates for good
  const long live = heap::live_blocks();
  EXPECT_EQ(row.status, provide());
  EXPECT_EQ(live, heap::live_blocks());  // the blob and nonce buffers go back
  EXPECT_TRUE(log_.has(row.message, kError)) << row.message;
  EXPECT_EQ(row.blob_file, access(kBlobPath.c_str(), F_OK) == 0);
  EXPECT_NE(0, access(kNoncePath.c_str(), F_OK));
  const uint8_t *blob = nullptr, *nonce = nullptr;
  EXPECT_TRUE(gp_tz_keyblob == nullptr && g_keyblob_len == 0 && gp_ta_nonceBuf == nullptr &&
              !ssl_store_key_material(&blob, &g_keyblob_len, &nonce));
}

INSTANTIATE_TEST_SUITE_P(
    Table, KeyblobFailure,
    testing::Values(FailureRow{"GenerateFails", 0, "SSL_cert_store: Error in Generating new Key blob", false},
                    FailureRow{"BlobPutFails", 1, "SSL_cert_store: Unable to store Key blob into EFS", false},
                    FailureRow{"NoncePutFails", 2, "SSL_cert_store: Unable to store nonce into EFS", true},
                    FailureRow{"NonceFileMissing", 3, "SSL_cert_store: Reading nonce from EFS failed failed!",
                               true},
                    FailureRow{"NonceNoMemory", 4, "Allocating memory for nonce buffer failed!", false, -3}));

using kora::fake::Crypt;

const char* const kPath = "/data/data_velto/.ssl/certs/dev";

struct Fault {
  const char* label;
  Crypt mode;
  int file;  // 0/1: write to kPath/into a missing directory; read 2: a zero-byte file, 3: kPath, 4: null
  std::string out;   // printed on standard output, not logged
  std::string text;  // the last message logged
};
std::ostream& operator<<(std::ostream& os, const Fault& r) { return os << r.label; }

class SealFault : public Keyblob, public testing::WithParamInterface<Fault> {};

// A failed write leaves no file; a failed read frees the caller's earlier buffer and clears both
// outputs. Nothing stays allocated.
TEST_P(SealFault, ReportsAndCleansUp) {
  const Fault& f = GetParam();
  ASSERT_EQ(0, provide());
  std::ofstream(kPath, std::ios::binary) << (f.file == 3 ? "FKSLplain" : "");
  (f.file == 3 ? kora::fake::unseal : kora::fake::seal) = f.mode;
  log_.clear();
  testing::internal::CaptureStdout();
  void* buffer = f.file == 2 ? std::malloc(16) : nullptr;  // from an earlier call
  size_t size = 16;
  const char* target = f.file == 1 ? "/data/data_velto/missing/dev" : f.file == 4 ? nullptr : kPath;
  const long live = heap::live_blocks() - (f.file == 2);  // the earlier buffer goes
  EXPECT_EQ(-1, f.file >= 2 ? ssl_store_cert_read_decrypt_from_file(target, &buffer, &size)
                            : ssl_store_cert_write_encrypt_to_file(target, "plain", 5));
  EXPECT_EQ(f.out, testing::internal::GetCapturedStdout());
  EXPECT_EQ(f.text, log_.texts().empty() ? "" : log_.texts().back());
  EXPECT_TRUE(f.file < 2 || (buffer == nullptr && size == (f.file == 4 ? 16u : 0u)));
  EXPECT_TRUE(f.file >= 2 || std::ifstream(kPath).peek() == EOF);
  EXPECT_EQ(heap::live_blocks(), live) << "a sealed or unsealed buffer leaked";
}

INSTANTIATE_TEST_SUITE_P(
    Table, SealFault,
    testing::Values(Fault{"SealFails", Crypt::kFail, 0,
                          "ssl_store_cert_write_encrypt_to_file: Certificate encrypt error \n", ""},
                    Fault{"NoSealedBytes", Crypt::kNoOutput, 0,
                          "SSL_cert_store: Key blob is not available !\n", ""},
                    Fault{"FileWriteFails", Crypt::kOk, 1, "",
                          "SSL_cert_store: storing Encrypted certificate in EFS failed!\n"},
                    Fault{"EmptyFile", Crypt::kOk, 2, "",
                          "ssl_store_cert_read_decrypt_from_file: Reading from EFS failed failed! \n"},
                    Fault{"UnsealFails", Crypt::kFail, 3, "",
                          "ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n"},
                    Fault{"NoPlainBytes", Crypt::kNoOutput, 3, "",
                          "SSL_cert_store:  Certificate decryption buffer is empty !\n"},
                    Fault{"NullName", Crypt::kOk, 4, "", "Invalid parameters\n"}));

}  // namespace kora::test
