// Sealed files against the host key service, as the device uses them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "log_capture.h"
#include "ssl_store.h"

namespace {

using Bytes = std::vector<uint8_t>;
const char* const kPath = "/data/data_velto/.ssl/certs/dev";

Bytes file_bytes() {
  std::ifstream in(kPath, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
void put(const Bytes& bytes) {
  std::ofstream(kPath, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}
// On failure the caller's outputs must be cleared.
int unseal(Bytes* out) {
  void* buffer = nullptr;
  size_t size = 0;
  const int rc = ssl_store_cert_read_decrypt_from_file(kPath, &buffer, &size);
  EXPECT_TRUE(rc == 0 || (buffer == nullptr && size == 0));
  *out = Bytes(static_cast<uint8_t*>(buffer), static_cast<uint8_t*>(buffer) + size);
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

TEST_F(Sealed, RoundTripsEverySize) {
  for (size_t n : {1u, 16u, 17u, 65536u}) {
    Bytes plain(n), back;
    for (size_t i = 0; i < n; ++i) {
      plain[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    ASSERT_EQ(0, ssl_store_cert_write_encrypt_to_file(kPath, plain.data(), plain.size()));
    ASSERT_EQ(0, unseal(&back)) << n;
    EXPECT_EQ(plain, back);
  }
}

TEST_F(Sealed, EveryAlteredOrTruncatedFileIsRefused) {
  ASSERT_EQ(0, ssl_store_cert_write_encrypt_to_file(kPath, "twenty plain bytes..", 20));
  const Bytes sealed = file_bytes();
  kora::test::LogCapture log;
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
  EXPECT_TRUE(log.has("ssl_store_cert_read_decrypt_from_file: Reading from EFS failed failed! \n",
                      kora::test::kError));
}

}  // namespace
