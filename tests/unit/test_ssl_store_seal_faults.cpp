// Sealed files with a key service that can be made to fail.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fake_km.h"
#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"

namespace {

using kora::fake_km::Crypt;
using kora::test::kError;
using kora::test::LogCapture;

const char* const kPath = "/data/data_velto/.ssl/certs/dev";
const std::string kPlain = "-----plain credential-----";
const std::string kEmpty = "SSL_cert_store:  Certificate decryption buffer is empty !\n";
const std::string kReadFailed = "ssl_store_cert_read_decrypt_from_file: Reading from EFS failed failed! \n";
const std::string kDecrypt = "ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n";
const std::string kEncrypt = "ssl_store_cert_write_encrypt_to_file: Certificate encrypt error \n";
const std::string kNoBlob = "SSL_cert_store: Key blob is not available !";

bool exists(const char* path) { return access(path, F_OK) == 0; }

class SealFaults : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/certs /data/data_velto/.ssl/keyblob"));
  }
  void provision() { ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file()); }
  int seal(const char* path = kPath) {
    return ssl_store_cert_write_encrypt_to_file(path, kPlain.data(), kPlain.size());
  }
};

TEST_F(SealFaults, WithoutKeyMaterialNothingIsTouched) {
  LogCapture log;
  EXPECT_EQ(-1, seal());
  EXPECT_FALSE(exists(kPath));
  std::ofstream(kPath) << "x";
  void* buffer = &log;
  size_t size = 5;
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath, &buffer, &size));
  EXPECT_EQ(&log, buffer);
  EXPECT_EQ(5u, size);
  EXPECT_EQ((std::vector<std::string>{kNoBlob + "\n", kNoBlob}), log.texts());
  EXPECT_TRUE(kora::fake_km::crypt_calls.empty());
}

TEST_F(SealFaults, PassesKeyMaterialAndWritesSealedBytesOnly) {
  provision();
  ASSERT_EQ(0, seal());
  std::ifstream in(kPath, std::ios::binary);
  EXPECT_EQ("FKSL" + kPlain, std::string(std::istreambuf_iterator<char>(in), {}));
  void* buffer = nullptr;
  size_t size = 0;
  ASSERT_EQ(0, ssl_store_cert_read_decrypt_from_file(kPath, &buffer, &size));
  EXPECT_EQ(kPlain, std::string(static_cast<char*>(buffer), size));
  std::free(buffer);
  const auto& calls = kora::fake_km::crypt_calls;
  ASSERT_EQ(2u, calls.size());
  for (const auto& c : calls) {
    EXPECT_EQ(gp_tz_keyblob, c.keyblob);
    EXPECT_EQ(g_keyblob_len, c.keyblob_len);
    EXPECT_EQ(gp_ta_nonceBuf, c.nonce);
  }
  EXPECT_EQ(static_cast<const void*>(kPlain.data()), calls[0].in);
  EXPECT_EQ(kPlain.size(), calls[0].in_len);
  EXPECT_EQ(0, calls[0].direction);
  EXPECT_EQ(&buffer, calls[1].out);  // straight into the caller's variables
  EXPECT_EQ(&size, calls[1].out_len);
  EXPECT_EQ(1, calls[1].direction);
}

TEST_F(SealFaults, RefusesMissingArguments) {
  provision();
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_cert_write_encrypt_to_file(nullptr, kPlain.data(), kPlain.size()));
  EXPECT_EQ(-1, ssl_store_cert_write_encrypt_to_file(kPath, nullptr, 1));
  EXPECT_EQ(-1, ssl_store_cert_write_encrypt_to_file(kPath, kPlain.data(), 0));
  EXPECT_EQ(3u, log.count(kEmpty));
  EXPECT_FALSE(exists(kPath));
  void* buffer = nullptr;
  size_t size = 3;
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(nullptr, &buffer, &size));
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath, nullptr, &size));
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath, &buffer, nullptr));
  EXPECT_EQ(3u, log.count("Invalid parameters\n"));
  EXPECT_EQ(3u, size);
}

struct WriteFault {
  const char* what;
  Crypt mode;
  const char* path;
  std::string out;     // printed on standard output, not logged
  std::string logged;  // the last message logged, or empty for none
};

class SealWriteFault : public SealFaults, public testing::WithParamInterface<WriteFault> {};

TEST_P(SealWriteFault, ReportsAndWritesNothing) {
  const WriteFault& f = GetParam();
  provision();
  kora::fake_km::seal = f.mode;
  LogCapture log;
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, seal(f.path));
  EXPECT_EQ(f.out, testing::internal::GetCapturedStdout());
  EXPECT_EQ(f.logged, log.texts().empty() ? "" : log.texts().back());
  EXPECT_FALSE(exists(kPath));
}

INSTANTIATE_TEST_SUITE_P(
    Table, SealWriteFault,
    testing::Values(WriteFault{"SealFails", Crypt::kFail, kPath, kEncrypt, ""},
                    WriteFault{"SealFailsWithOutput", Crypt::kFailWithOutput, kPath, kEncrypt, ""},
                    WriteFault{"NoOutput", Crypt::kNoOutput, kPath, kNoBlob + "\n", ""},
                    WriteFault{"EmptyOutput", Crypt::kEmptyOutput, kPath, kNoBlob + "\n", ""},
                    WriteFault{"FileWriteFails", Crypt::kOk, "/data/data_velto/missing/dev", "",
                               "SSL_cert_store: storing Encrypted certificate in EFS failed!\n"}),
    [](const testing::TestParamInfo<WriteFault>& p) { return std::string(p.param.what); });

enum class File { kMissing, kZeroBytes, kSealed };

struct ReadFault {
  const char* what;
  File file;
  Crypt unseal;
  std::string message;
};

class SealReadFault : public SealFaults, public testing::WithParamInterface<ReadFault> {};

// The caller's earlier buffer is released on every failure after the key check.
TEST_P(SealReadFault, FreesAndClearsCallerOutputs) {
  const ReadFault& f = GetParam();
  provision();
  if (f.file == File::kSealed) {
    ASSERT_EQ(0, seal());
  } else if (f.file == File::kZeroBytes) {
    std::ofstream(kPath).flush();
  }
  kora::fake_km::unseal = f.unseal;
  LogCapture log;
  // A buffer from an earlier call, where the key service is not reached to overwrite it.
  void* buffer = f.file == File::kSealed ? nullptr : std::malloc(16);
  size_t size = 16;
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath, &buffer, &size));
  EXPECT_EQ(nullptr, buffer);
  EXPECT_EQ(0u, size);
  ASSERT_FALSE(log.messages().empty());
  EXPECT_EQ(f.message, log.texts().back());
  EXPECT_EQ(kError, log.messages().back().mask);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SealReadFault,
    testing::Values(ReadFault{"Missing", File::kMissing, Crypt::kOk, kReadFailed},
                    ReadFault{"EmptyFile", File::kZeroBytes, Crypt::kOk, kReadFailed},
                    ReadFault{"UnsealFails", File::kSealed, Crypt::kFail, kDecrypt},
                    ReadFault{"UnsealFailsWithOutput", File::kSealed, Crypt::kFailWithOutput, kDecrypt},
                    ReadFault{"NoPlainBytes", File::kSealed, Crypt::kNoOutput, kEmpty},
                    ReadFault{"EmptyPlainBuffer", File::kSealed, Crypt::kEmptyOutput, kEmpty}),
    [](const testing::TestParamInfo<ReadFault>& p) { return std::string(p.param.what); });

}  // namespace
