#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "fakes.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"

namespace {

namespace fake = kora::fake;
using kora::test::kError;
using kora::test::kHigh;
using kora::test::LogCapture;
using Bytes = std::vector<uint8_t>;

const std::string kBlobPath = "/data/data_velto/.ssl/keyblob/takey.blob";
const std::string kNoncePath = "/data/data_velto/.ssl/keyblob/takey.nonce";
const std::string kSuccess = "SSL_cert_store: Successfully genereated Keyblob";

Bytes file_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
void put(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}
bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class Keyblob : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/keyblob")); }
  int provide() { return ssl_store_generate_keyblob_store_in_securefs_file(); }
  LogCapture log_;
};

TEST_F(Keyblob, FirstStartGeneratesAndStoresBothOnce) {
  ASSERT_EQ(0, provide());
  EXPECT_EQ((std::vector<std::string>{"Keyblob is generated", kSuccess}), log_.texts());
  EXPECT_EQ((std::vector<std::string>{kBlobPath, kNoncePath}), fake::put_paths);
  EXPECT_EQ((std::vector<int>{0x41, 0x1ff, 0x41, 0x1ff}), fake::put_flags);
  ASSERT_EQ(fake::kBlobLength, g_keyblob_len);
  EXPECT_EQ(Bytes(gp_tz_keyblob, gp_tz_keyblob + g_keyblob_len), file_bytes(kBlobPath));
  EXPECT_EQ(Bytes(gp_ta_nonceBuf, gp_ta_nonceBuf + 12), file_bytes(kNoncePath));
  log_.clear();
  ASSERT_EQ(0, provide());  // already in memory: nothing is written again
  EXPECT_EQ((std::vector<std::string>{kSuccess}), log_.texts());
  EXPECT_EQ(2u, fake::put_paths.size());
  EXPECT_EQ(1, fake::generate_calls);
}

TEST_F(Keyblob, LaterStartLoadsNonceOfAnyLength) {
  put(kBlobPath, {1, 2, 3});
  for (size_t nonce_len : {5u, 40u}) {
    const Bytes nonce(nonce_len, static_cast<uint8_t>(nonce_len));
    put(kNoncePath, nonce);
    ASSERT_EQ(0, provide());
    EXPECT_EQ((Bytes{1, 2, 3}), Bytes(gp_tz_keyblob, gp_tz_keyblob + g_keyblob_len));
    EXPECT_EQ(nonce, Bytes(gp_ta_nonceBuf, gp_ta_nonceBuf + nonce_len));
    gp_tz_keyblob = nullptr;  // as at the next process start (the old buffers leak here)
  }
  EXPECT_EQ(0, fake::generate_calls);
}

// A null blob from the service counts as success with no nonce and no files, and its length
// stays behind; a later failed load frees nothing and leaves that length as it is.
TEST_F(Keyblob, NullBlobIsSuccessAndItsLengthSurvives) {
  fake::generate = fake::Generate::kNullBlob;
  ASSERT_EQ(0, provide());
  EXPECT_EQ(fake::kBlobLength, g_keyblob_len);
  EXPECT_EQ(nullptr, gp_ta_nonceBuf);
  EXPECT_TRUE(fake::put_paths.empty());
  fake::stat_rc = 0;  // the blob file "exists" but cannot be read
  EXPECT_EQ(-1, provide());
  EXPECT_TRUE(log_.has("SSL_cert_store: Reading keyblob from EFS failed failed!", kError));
  EXPECT_EQ(fake::kBlobLength, g_keyblob_len);
}

struct FailureRow {
  int inject;  // 0 generate, 1 random, 2/3 the n-th put, 4 blob file without nonce file
  std::string message;
  bool blob_file;  // takey.blob on disk afterwards
};

class KeyblobFailure : public Keyblob, public testing::WithParamInterface<FailureRow> {};

TEST_P(KeyblobFailure, ReportsAndCleansUp) {
  const FailureRow& row = GetParam();
  fake::generate = row.inject == 0 ? fake::Generate::kFail : fake::Generate::kOk;
  fake::random_fail_rc = row.inject == 1 ? -1 : 0;
  fake::fail_put_on_call = row.inject == 2 || row.inject == 3 ? row.inject - 1 : 0;
  if (row.inject == 4) {
    put(kBlobPath, {9, 9, 9});
  }
  EXPECT_EQ(-1, provide());
  EXPECT_TRUE(log_.has(row.message, kError)) << row.message;
  EXPECT_EQ(row.blob_file, exists(kBlobPath));
  EXPECT_FALSE(exists(kNoncePath));
  EXPECT_EQ(nullptr, gp_tz_keyblob);
  EXPECT_EQ(0u, g_keyblob_len);
  EXPECT_EQ(nullptr, gp_ta_nonceBuf);
}

INSTANTIATE_TEST_SUITE_P(
    Table, KeyblobFailure,
    testing::Values(FailureRow{0, "SSL_cert_store: Error in Generating new Key blob", false},
                    FailureRow{1, "SSL_cert_store: Unable to generate TA nonce ", false},
                    FailureRow{2, "SSL_cert_store: Unable to store Key blob into EFS", false},
                    FailureRow{3, "SSL_cert_store: Unable to store nonce into EFS", true},
                    FailureRow{4, "SSL_cert_store: Reading nonce from EFS failed failed!", true}));

}  // namespace
