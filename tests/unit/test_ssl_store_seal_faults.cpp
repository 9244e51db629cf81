#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "fakes.h"
#include "heap_watch.h"
#include "log_capture.h"
#include "ssl_store.h"

namespace kora::test {

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

class SealFault : public testing::TestWithParam<Fault> {};

// A failed write leaves no file; a failed read frees the caller's earlier buffer and clears both
// outputs. Nothing stays allocated.
TEST_P(SealFault, ReportsAndCleansUp) {
  const Fault& f = GetParam();
  ASSERT_EQ(0, system("mkdir -p /data/data_velto/.ssl/certs /data/data_velto/.ssl/keyblob"));
  ASSERT_EQ(0, ssl_store_generate_keyblob_store_in_securefs_file());
  std::ofstream(kPath, std::ios::binary) << (f.file == 3 ? "FKSLplain" : "");
  (f.file == 3 ? kora::fake::unseal : kora::fake::seal) = f.mode;
  LogCapture log;
  testing::internal::CaptureStdout();
  void* buffer = f.file == 2 ? std::malloc(16) : nullptr;  // from an earlier call
  size_t size = 16;
  const char* target = f.file == 1 ? "/data/data_velto/missing/dev" : f.file == 4 ? nullptr : kPath;
  const long live = heap::live_blocks() - (f.file == 2);  // the earlier buffer goes
  EXPECT_EQ(-1, f.file >= 2 ? ssl_store_cert_read_decrypt_from_file(target, &buffer, &size)
                            : ssl_store_cert_write_encrypt_to_file(target, "plain", 5));
  EXPECT_EQ(f.out, testing::internal::GetCapturedStdout());
  EXPECT_EQ(f.text, log.texts().empty() ? "" : log.texts().back());
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
