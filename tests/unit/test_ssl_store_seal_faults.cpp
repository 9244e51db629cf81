// Sealed files with a key service that can be made to fail.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "fakes.h"
#include "log_capture.h"
#include "ssl_store.h"

namespace {

using kora::fake::Crypt;
using kora::test::LogCapture;

const char* const kPath = "/data/data_velto/.ssl/certs/dev";
const std::string kPlain = "-----plain credential-----";
const std::string kNoBlob = "SSL_cert_store: Key blob is not available !";

class SealFaults : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/certs /data/data_velto/.ssl/keyblob"));
  }
  int seal(const char* path = kPath) {
    return ssl_store_cert_write_encrypt_to_file(path, kPlain.data(), kPlain.size());
  }
};

TEST_F(SealFaults, WithoutKeyMaterialNothingIsTouched) {
  LogCapture log;
  EXPECT_EQ(-1, seal());
  EXPECT_NE(0, access(kPath, F_OK));
  std::ofstream(kPath) << "x";
  void* buffer = &log;
  size_t size = 5;
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath, &buffer, &size));
  EXPECT_TRUE(buffer == &log && size == 5);
  EXPECT_EQ((std::vector<std::string>{kNoBlob + "\n", kNoBlob}), log.texts());
  EXPECT_EQ(0, kora::fake::crypt_calls);
}

struct Fault {
  const char* label;
  Crypt mode;
  bool reading;
  bool empty_file;   // reading a zero-byte file instead of a sealed one
  std::string out;   // printed on standard output, not logged (writing)
  std::string text;  // the last message logged
};
std::ostream& operator<<(std::ostream& os, const Fault& r) { return os << r.label; }

class SealFault : public SealFaults, public testing::WithParamInterface<Fault> {};

// A failed write leaves no file; a failed read frees the caller's earlier buffer and clears both outputs.
TEST_P(SealFault, ReportsAndCleansUp) {
  const Fault& f = GetParam();
  ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file());
  (f.reading && !f.empty_file ? kora::fake::unseal : kora::fake::seal) = f.mode;
  if (f.empty_file) {
    std::ofstream(kPath).flush();
  } else if (f.reading) {
    ASSERT_EQ(0, seal());
  }
  LogCapture log;
  testing::internal::CaptureStdout();
  void* buffer = f.empty_file ? std::malloc(16) : nullptr;  // from an earlier call
  size_t size = 16;
  EXPECT_EQ(-1, f.reading ? ssl_store_cert_read_decrypt_from_file(kPath, &buffer, &size)
                          : seal(f.mode == Crypt::kOk ? "/data/data_velto/missing/dev" : kPath));
  EXPECT_EQ(f.out, testing::internal::GetCapturedStdout());
  EXPECT_EQ(f.text, log.texts().empty() ? "" : log.texts().back());
  if (f.reading) {
    EXPECT_EQ(nullptr, buffer);
    EXPECT_EQ(0u, size);
  } else {
    EXPECT_NE(0, access(kPath, F_OK));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, SealFault,
    testing::Values(Fault{"SealFails", Crypt::kFail, false, false,
                          "ssl_store_cert_write_encrypt_to_file: Certificate encrypt error \n", ""},
                    Fault{"NoSealedBytes", Crypt::kNoOutput, false, false, kNoBlob + "\n", ""},
                    Fault{"FileWriteFails", Crypt::kOk, false, false, "",
                          "SSL_cert_store: storing Encrypted certificate in EFS failed!\n"},
                    Fault{"EmptyFile", Crypt::kOk, true, true, "",
                          "ssl_store_cert_read_decrypt_from_file: Reading from EFS failed failed! \n"},
                    Fault{"UnsealFails", Crypt::kFail, true, false, "",
                          "ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n"},
                    Fault{"NoPlainBytes", Crypt::kNoOutput, true, false, "",
                          "SSL_cert_store:  Certificate decryption buffer is empty !\n"}));

}  // namespace
