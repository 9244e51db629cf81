// Sealed files against the host key service, as the device uses them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "log_capture.h"
#include "ssl_store.h"
#include "ssl_store_internal.h"

namespace {

using kora::test::kError;
using kora::test::LogCapture;
using Bytes = std::vector<uint8_t>;

const char* const kPath = "/data/data_velto/.ssl/certs/dev";

Bytes file_bytes() {
  std::ifstream in(kPath, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
void put(const Bytes& bytes) {
  std::ofstream(kPath, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}
Bytes pattern(size_t n) {
  Bytes out(n);
  for (size_t i = 0; i < n; ++i) {
    out[i] = static_cast<uint8_t>(i * 7 + 3);
  }
  return out;
}
int seal(const Bytes& plain) {
  return ssl_store_cert_write_encrypt_to_file(kPath, plain.data(), plain.size());
}

// -1 on failure (the outputs must then be cleared), else the plain bytes through out.
int unseal(Bytes* out) {
  void* buffer = nullptr;
  size_t size = 0;
  const int rc = ssl_store_cert_read_decrypt_from_file(kPath, &buffer, &size);
  if (rc == 0) {
    *out = Bytes(static_cast<uint8_t*>(buffer), static_cast<uint8_t*>(buffer) + size);
  } else if (buffer != nullptr || size != 0) {
    ADD_FAILURE() << "outputs not cleared on failure";
  }
  std::free(buffer);
  return rc;
}

class Sealed : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("mkdir -p /data/km"));
    setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
    ASSERT_EQ(0, ssl_store_init());
  }
};

TEST_F(Sealed, RoundTripsEverySizeAndSealsAfresh) {
  for (size_t n : {1u, 12u, 16u, 17u, 4096u, 65536u}) {
    ASSERT_EQ(0, seal(pattern(n))) << n;
    Bytes back;
    ASSERT_EQ(0, unseal(&back)) << n;
    EXPECT_EQ(pattern(n), back);
  }
  const Bytes first = file_bytes();
  ASSERT_EQ(0, seal(pattern(65536)));
  EXPECT_NE(first, file_bytes()) << "same plaintext sealed to the same bytes";
}

TEST_F(Sealed, EveryAlteredOrTruncatedFileIsRefused) {
  ASSERT_EQ(0, seal(pattern(20)));
  const Bytes sealed = file_bytes();
  LogCapture log;
  Bytes ignored;
  for (size_t i = 0; i < sealed.size(); ++i) {
    Bytes altered = sealed;
    altered[i] ^= 0x01;
    put(altered);
    EXPECT_EQ(-1, unseal(&ignored)) << "byte " << i;
    put(Bytes(sealed.begin(), sealed.begin() + static_cast<long>(i)));
    EXPECT_EQ(-1, unseal(&ignored)) << "length " << i;
  }
  // One refusal per altered byte and per non-empty truncation; the empty file is a read failure.
  EXPECT_EQ(2 * sealed.size() - 1,
            log.count("ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n"));
  EXPECT_TRUE(log.has("ssl_store_cert_read_decrypt_from_file: Reading from EFS failed failed! \n", kError));
}

// A store provisioned by one process is read back by the next one: the child starts with
// empty key material as a fresh process does and loads it from the tree.
TEST_F(Sealed, NextProcessReadsBackItsFiles) {
  ASSERT_EQ(0, seal(pattern(300)));
  const Bytes blob(gp_tz_keyblob, gp_tz_keyblob + g_keyblob_len);
  const pid_t pid = fork();
  if (pid == 0) {
    gp_tz_keyblob = nullptr;
    g_keyblob_len = 0;
    gp_ta_nonceBuf = nullptr;
    Bytes back;
    const bool ok = ssl_store_init() == 0 && blob == Bytes(gp_tz_keyblob, gp_tz_keyblob + g_keyblob_len) &&
                    unseal(&back) == 0 && back == pattern(300);
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
