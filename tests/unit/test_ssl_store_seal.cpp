#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "log_capture.h"
#include "ssl_store.h"

namespace {

const char* const kPath = "/data/data_velto/.ssl/certs/dev";

// The plain bytes, or "failed" after checking that the caller's outputs were cleared.
std::string unseal() {
  void* buffer = nullptr;
  size_t size = 0;
  const int rc = ssl_store_cert_read_decrypt_from_file(kPath, &buffer, &size);
  EXPECT_TRUE(rc == 0 || (buffer == nullptr && size == 0));
  const std::string plain = rc == 0 ? std::string(static_cast<char*>(buffer), size) : "failed";
  std::free(buffer);
  return plain;
}

TEST(Sealed, RoundTripsAndRefusesEveryAlteredOrTruncatedFile) {
  ASSERT_EQ(0, system("mkdir -p /data/km"));
  setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);
  ASSERT_EQ(0, ssl_store_init());
  for (size_t n : {1u, 17u, 65536u}) {
    const std::string plain(n, static_cast<char>(n));
    ASSERT_EQ(0, ssl_store_cert_write_encrypt_to_file(kPath, plain.data(), plain.size()));
    EXPECT_EQ(plain, unseal()) << n;
  }
  ASSERT_EQ(0, ssl_store_cert_write_encrypt_to_file(kPath, "twenty plain bytes..", 20));
  std::ifstream in(kPath, std::ios::binary);
  const std::string sealed{std::istreambuf_iterator<char>(in), {}};
  EXPECT_EQ(std::string::npos, sealed.find("plain"));
  kora::test::LogCapture log;
  for (size_t i = 0; i < sealed.size(); ++i) {
    std::string altered = sealed;
    altered[i] ^= 0x01;
    std::ofstream(kPath, std::ios::binary) << altered;
    EXPECT_EQ("failed", unseal()) << "byte " << i;
    std::ofstream(kPath, std::ios::binary) << sealed.substr(0, i);
    EXPECT_EQ("failed", unseal()) << "length " << i;
  }
  // One refusal per altered byte and per non-empty truncation; the empty file is a read failure
  // (its message is pinned by the seal fault table).
  EXPECT_EQ(2 * sealed.size() - 1,
            log.count("ssl_store_cert_read_decrypt_from_file: Certificate decryption error \n"));
}

}  // namespace
