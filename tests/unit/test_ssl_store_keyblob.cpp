#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "fake_efs.h"
#include "fake_km.h"
#include "fake_random.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"

namespace {

using kora::fake_km::Generate;
using kora::test::kError;
using kora::test::kHigh;
using kora::test::LogCapture;
using Bytes = std::vector<uint8_t>;

const std::string kBlobPath = "/data/data_velto/.ssl/keyblob/takey.blob";
const std::string kNoncePath = "/data/data_velto/.ssl/keyblob/takey.nonce";
const std::string kSuccess = "SSL_cert_store: Successfully genereated Keyblob";

Bytes file_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
void put(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}
bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}
Bytes blob_in_memory() { return Bytes(gp_tz_keyblob, gp_tz_keyblob + g_keyblob_len); }

class Keyblob : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/keyblob")); }
  LogCapture log_;
};

TEST_F(Keyblob, FirstStartGeneratesAndStoresBoth) {
  ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file());
  EXPECT_EQ((std::vector<std::string>{"Keyblob is generated", kSuccess}), log_.texts());
  EXPECT_EQ(kHigh, log_.messages()[0].mask);
  EXPECT_EQ(kHigh, log_.messages()[1].mask);
  EXPECT_EQ((std::vector<uint16_t>{12}), kora::fake_random::lengths);
  const auto& puts = kora::fake_efs::puts;
  ASSERT_EQ(2u, puts.size());
  EXPECT_EQ(kBlobPath, puts[0].path);
  EXPECT_EQ(kNoncePath, puts[1].path);
  for (const auto& p : puts) {
    EXPECT_EQ(0x41, p.oflag);
    EXPECT_EQ(0x1ff, p.mode);
  }
  const Bytes blob = blob_in_memory();
  ASSERT_EQ(kora::fake_km::kBlobLength, blob.size());
  EXPECT_EQ(0xA0, blob[0]);
  EXPECT_EQ(blob, file_bytes(kBlobPath));
  ASSERT_EQ(12u, file_bytes(kNoncePath).size());
  EXPECT_EQ(file_bytes(kNoncePath), Bytes(gp_ta_nonceBuf, gp_ta_nonceBuf + 12));

  // Already in memory: nothing is looked at or written again.
  log_.clear();
  ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file());
  EXPECT_EQ((std::vector<std::string>{kSuccess}), log_.texts());
  EXPECT_EQ(1, kora::fake_efs::stat_calls);
  EXPECT_EQ(2u, kora::fake_efs::puts.size());
  EXPECT_EQ(1, kora::fake_km::generate_calls);
}

TEST_F(Keyblob, LaterStartLoadsNonceOfAnyLength) {
  const Bytes blob = {1, 2, 3, 4, 5, 6, 7};
  put(kBlobPath, blob);
  for (size_t nonce_len : {5u, 12u, 40u}) {
    const Bytes nonce(nonce_len, static_cast<uint8_t>(nonce_len));
    put(kNoncePath, nonce);
    ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file());
    EXPECT_EQ(blob, blob_in_memory());
    EXPECT_EQ(nonce, Bytes(gp_ta_nonceBuf, gp_ta_nonceBuf + nonce_len));
    gp_tz_keyblob = nullptr;  // as at the next process start (the test leaks the old ones)
    g_keyblob_len = 0;
  }
  EXPECT_EQ(0, kora::fake_km::generate_calls);
  EXPECT_TRUE(kora::fake_efs::puts.empty());
}

TEST_F(Keyblob, NonceFileMovesWithExportedName) {
  g_ssl_ta_keyblob_nonce_file_name = "/data/data_velto/other.nonce";
  ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file());
  EXPECT_EQ(12u, file_bytes("/data/data_velto/other.nonce").size());
  EXPECT_FALSE(exists(kNoncePath));
}

// A null blob from the service leaves its length behind; a later failed load frees nothing
// and must leave that length as it is.
TEST_F(Keyblob, LengthSurvivesCleanupWithoutBlob) {
  kora::fake_km::generate = Generate::kNullBlob;
  ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file());
  EXPECT_EQ(kora::fake_km::kBlobLength, g_keyblob_len);
  kora::fake_efs::stat_rc = 0;  // the blob file "exists" but cannot be read
  log_.clear();
  EXPECT_EQ(-1, ssl_store_generate_keyblob_store_in_securefs_file());
  EXPECT_TRUE(log_.has("SSL_cert_store: Reading keyblob from EFS failed failed!", kError));
  EXPECT_EQ(nullptr, gp_tz_keyblob);
  EXPECT_EQ(kora::fake_km::kBlobLength, g_keyblob_len);
}

struct FailureRow {
  const char* what;
  std::function<void()> inject;
  int rc;
  std::string message;  // the last message (error level), or the success text (high)
  bool blob_file;       // takey.blob on disk afterwards
  bool memory_empty;
};

class KeyblobFailure : public Keyblob, public testing::WithParamInterface<FailureRow> {};

TEST_P(KeyblobFailure, ReportsAndCleansUp) {
  const FailureRow& row = GetParam();
  row.inject();
  EXPECT_EQ(row.rc, ssl_store_generate_keyblob_store_in_securefs_file());
  ASSERT_FALSE(log_.messages().empty());
  EXPECT_EQ(row.message, log_.texts().back());
  EXPECT_EQ(row.rc == 0 ? kHigh : kError, log_.messages().back().mask);
  EXPECT_EQ(row.blob_file, exists(kBlobPath));
  EXPECT_FALSE(exists(kNoncePath));
  if (row.memory_empty) {
    EXPECT_EQ(nullptr, gp_tz_keyblob);
    EXPECT_EQ(0u, g_keyblob_len);
  }
  EXPECT_EQ(nullptr, gp_ta_nonceBuf);
}

INSTANTIATE_TEST_SUITE_P(
    Table, KeyblobFailure,
    testing::Values(FailureRow{"GenerateFails", [] { kora::fake_km::generate = Generate::kFail; }, -1,
                               "SSL_cert_store: Error in Generating new Key blob", false, true},
                    FailureRow{"NullBlob", [] { kora::fake_km::generate = Generate::kNullBlob; }, 0, kSuccess,
                               false, false},
                    FailureRow{"EmptyBlob", [] { kora::fake_km::generate = Generate::kEmptyBlob; }, 0,
                               kSuccess, false, false},
                    FailureRow{"RandomFails", [] { kora::fake_random::fail_next_rc = -1; }, -1,
                               "SSL_cert_store: Unable to generate TA nonce ", false, true},
                    FailureRow{"BlobPutFails", [] { kora::fake_efs::fail_put_on_call = 1; }, -1,
                               "SSL_cert_store: Unable to store Key blob into EFS", false, true},
                    FailureRow{"NoncePutFails", [] { kora::fake_efs::fail_put_on_call = 2; }, -1,
                               "SSL_cert_store: Unable to store nonce into EFS", true, true},
                    FailureRow{"NonceFileMissing",
                               [] {
                                 put(kBlobPath, {9, 9, 9});
                               },
                               -1, "SSL_cert_store: Reading nonce from EFS failed failed!", true, true}),
    [](const testing::TestParamInfo<FailureRow>& p) { return std::string(p.param.what); });

}  // namespace
