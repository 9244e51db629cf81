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

const std::string kPath = "/data/data_velto/.ssl/certs/dev";
const std::string kEmpty = "SSL_cert_store:  Certificate decryption buffer is empty !\n";
const std::string kReadFailed = "ssl_store_cert_read_decrypt_from_file: Reading from EFS failed failed! \n";
const std::string kPlain = "-----plain credential-----";

std::string file_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class SealFaults : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/certs /data/data_velto/.ssl/keyblob"));
  }
  void provision() { ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file()); }
  int seal() { return ssl_store_cert_write_encrypt_to_file(kPath.c_str(), kPlain.data(), kPlain.size()); }
};

TEST_F(SealFaults, WithoutKeyMaterialNothingIsTouched) {
  LogCapture log;
  EXPECT_EQ(-1, seal());
  EXPECT_FALSE(exists(kPath));
  std::ofstream(kPath) << "x";
  void* buffer = &log;
  size_t size = 5;
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath.c_str(), &buffer, &size));
  EXPECT_EQ(&log, buffer);
  EXPECT_EQ(5u, size);
  EXPECT_EQ((std::vector<std::string>{"SSL_cert_store: Key blob is not available !\n",
                                      "SSL_cert_store: Key blob is not available !"}),
            log.texts());
  EXPECT_TRUE(kora::fake_km::crypt_calls().empty());
}

TEST_F(SealFaults, PassesKeyMaterialAndWritesSealedBytesOnly) {
  provision();
  ASSERT_EQ(0, seal());
  EXPECT_EQ("FKSL" + kPlain, file_text(kPath));
  void* buffer = nullptr;
  size_t size = 0;
  ASSERT_EQ(0, ssl_store_cert_read_decrypt_from_file(kPath.c_str(), &buffer, &size));
  EXPECT_EQ(kPlain, std::string(static_cast<char*>(buffer), size));
  const auto& calls = kora::fake_km::crypt_calls();
  ASSERT_EQ(2u, calls.size());
  for (const auto& c : calls) {
    EXPECT_EQ(gp_tz_keyblob, c.keyblob);
    EXPECT_EQ(g_keyblob_len, c.keyblob_len);
    EXPECT_EQ(gp_ta_nonceBuf, c.nonce);
  }
  EXPECT_EQ(static_cast<const void*>(kPlain.data()), calls[0].in);
  EXPECT_EQ(kPlain.size(), calls[0].in_len);
  EXPECT_EQ(0, calls[0].direction);
  EXPECT_EQ("FKSL" + kPlain, std::string(calls[1].input.begin(), calls[1].input.end()));
  EXPECT_EQ(&buffer, calls[1].out);  // straight into the caller's variables
  EXPECT_EQ(&size, calls[1].out_len);
  EXPECT_EQ(1, calls[1].direction);
  std::free(buffer);
}

struct WriteFault {
  const char* what;
  Crypt mode;
  std::string stdout_line;
};

class SealWriteFault : public SealFaults, public testing::WithParamInterface<WriteFault> {};

// These two report on standard output, not through the logger.
TEST_P(SealWriteFault, PrintsAndWritesNothing) {
  provision();
  kora::fake_km::set_seal(GetParam().mode);
  LogCapture log;
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, seal());
  EXPECT_EQ(GetParam().stdout_line, testing::internal::GetCapturedStdout());
  EXPECT_TRUE(log.messages().empty());
  EXPECT_FALSE(exists(kPath));
}

INSTANTIATE_TEST_SUITE_P(
    Table, SealWriteFault,
    testing::Values(WriteFault{"SealFails", Crypt::kFail,
                               "ssl_store_cert_write_encrypt_to_file: Certificate encrypt error \n"},
                    WriteFault{"SealFailsWithOutput", Crypt::kFailWithOutput,
                               "ssl_store_cert_write_encrypt_to_file: Certificate encrypt error \n"},
                    WriteFault{"NoOutput", Crypt::kNoOutput, "SSL_cert_store: Key blob is not available !\n"},
                    WriteFault{"EmptyOutput", Crypt::kEmptyOutput,
                               "SSL_cert_store: Key blob is not available !\n"}),
    [](const testing::TestParamInfo<WriteFault>& p) { return std::string(p.param.what); });

TEST_F(SealFaults, FileWriteFailureIsReportedTwice) {
  provision();
  LogCapture log;
  const std::string path = "/data/data_velto/missing/dev";
  EXPECT_EQ(-1, ssl_store_cert_write_encrypt_to_file(path.c_str(), kPlain.data(), kPlain.size()));
  EXPECT_EQ((std::vector<std::string>{"Error in opening " + path + "\n",
                                      "SSL_cert_store: storing Encrypted certificate in EFS failed!\n"}),
            log.texts());
}

struct ReadFault {
  const char* what;
  bool write_file;  // a good sealed file, else an empty one (or none when missing)
  bool missing;
  Crypt unseal;
  std::string message;
};

class SealReadFault : public SealFaults, public testing::WithParamInterface<ReadFault> {};

// The caller's earlier buffer is released on every failure after the key check.
TEST_P(SealReadFault, FreesAndClearsCallerOutputs) {
  const ReadFault& f = GetParam();
  provision();
  if (f.write_file) {
    ASSERT_EQ(0, seal());
  } else if (!f.missing) {
    std::ofstream(kPath).flush();
  }
  kora::fake_km::set_unseal(f.unseal);
  LogCapture log;
  // A buffer from an earlier call, where the key service is not reached to overwrite it.
  void* buffer = f.write_file ? nullptr : std::malloc(16);
  size_t size = 16;
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath.c_str(), &buffer, &size));
  EXPECT_EQ(nullptr, buffer);
  EXPECT_EQ(0u, size);
  ASSERT_FALSE(log.messages().empty());
  EXPECT_EQ(f.message, log.texts().back());
  EXPECT_EQ(kError, log.messages().back().mask);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SealReadFault,
    testing::Values(ReadFault{"Missing", false, true, Crypt::kOk, kReadFailed},
                    ReadFault{"EmptyFile", false, false, Crypt::kOk, kReadFailed},
                    ReadFault{"UnsealFails", true, false, Crypt::kFail,
                              "ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n"},
                    ReadFault{"UnsealFailsWithOutput", true, false, Crypt::kFailWithOutput,
                              "ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n"},
                    ReadFault{"NoPlainBytes", true, false, Crypt::kNoOutput, kEmpty},
                    ReadFault{"EmptyPlainBuffer", true, false, Crypt::kEmptyOutput, kEmpty}),
    [](const testing::TestParamInfo<ReadFault>& p) { return std::string(p.param.what); });

TEST_F(SealFaults, RefusesMissingArguments) {
  provision();
  LogCapture log;
  EXPECT_EQ(-1, ssl_store_cert_write_encrypt_to_file(nullptr, kPlain.data(), kPlain.size()));
  EXPECT_EQ(-1, ssl_store_cert_write_encrypt_to_file(kPath.c_str(), nullptr, 1));
  EXPECT_EQ(-1, ssl_store_cert_write_encrypt_to_file(kPath.c_str(), kPlain.data(), 0));
  EXPECT_EQ(3u, log.count(kEmpty));
  EXPECT_FALSE(exists(kPath));
  void* buffer = nullptr;
  size_t size = 3;
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(nullptr, &buffer, &size));
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath.c_str(), nullptr, &size));
  EXPECT_EQ(-1, ssl_store_cert_read_decrypt_from_file(kPath.c_str(), &buffer, nullptr));
  EXPECT_EQ(3u, log.count("Invalid parameters\n"));
  EXPECT_EQ(3u, size);
}

}  // namespace
