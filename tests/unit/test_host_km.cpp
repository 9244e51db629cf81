// The host key service with real OpenSSL and a real root key file on the private tmpfs.
#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "host_km.h"
#include "ssl_KM_crypto_services.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace km = kora::km;
const char* const kRootKey = "/data/km/root.key";
constexpr int kSeal = SSL_KM_DIRECTION_SEAL, kUnseal = SSL_KM_DIRECTION_UNSEAL;

void write_file(const std::string& path, const Bytes& b) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
}

Bytes random_bytes(size_t n) {
  Bytes b(n);
  RAND_bytes(b.data(), static_cast<int>(n));
  return b;
}

Bytes new_blob(int expected_rc = 0) {
  uint8_t* p = nullptr;
  size_t len = 0;
  EXPECT_EQ(ssl_KM_TA_crypto_services_generate_keyblob(&p, &len), expected_rc);
  Bytes b(p, p + len);
  std::free(p);
  return b;
}

// Calls the service and frees its buffer.
int crypt(const Bytes& blob, const Bytes& nonce, const Bytes& in, int direction, Bytes* out = nullptr) {
  void* p = nullptr;
  size_t len = 0;
  const int rc = ssl_KM_TA_crypto_services_encrypt_decrypt_data(blob.data(), blob.size(), nonce.data(),
                                                                in.data(), in.size(), &p, &len, direction);
  if (rc == 0 && out != nullptr) {
    out->assign(static_cast<uint8_t*>(p), static_cast<uint8_t*>(p) + len);
  }
  std::free(p);
  return rc;
}

class HostKm : public testing::Test {
 protected:
  void SetUp() override {
    setenv("KORA_KM_ROOT_KEY", kRootKey, 1);
    ::umask(022);
    blob_ = new_blob();
  }
  Bytes seal(const Bytes& plain) {
    Bytes out;
    EXPECT_EQ(crypt(blob_, nonce_, plain, kSeal, &out), 0);
    return out;
  }
  Bytes blob_, nonce_ = random_bytes(km::kNonceLen);
};

// The first use creates the root key, private, with no temporary file left behind.
TEST_F(HostKm, FirstUseCreatesOnePrivateRootKey) {
  struct stat st {};
  ASSERT_EQ(stat(kRootKey, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_size, 32);
  EXPECT_EQ(std::system("test $(ls -A /data/km | wc -l) -eq 1"), 0) << "temporary files left behind";
  EXPECT_EQ(blob_.size(), km::kKeyBlobLen);
}

TEST_F(HostKm, RoundTripsKeepEveryLengthWithAFreshIv) {
  for (size_t n : {0, 17, 100000}) {
    const Bytes plain = random_bytes(n), sealed = seal(plain);
    ASSERT_EQ(sealed.size(), n + 29) << n;
    Bytes back;
    ASSERT_EQ(crypt(blob_, nonce_, sealed, kUnseal, &back), 0) << n;
    EXPECT_EQ(back, plain) << n;
  }
  const Bytes a = seal(Bytes(64, 'a')), b = seal(Bytes(64, 'a'));
  EXPECT_NE(Bytes(a.begin() + 1, a.begin() + 13), Bytes(b.begin() + 1, b.begin() + 13));
}

// One byte more, every truncation, a low and a high bit flipped in each byte, another nonce,
// another key blob.
TEST_F(HostKm, EveryAlterationFailsAuthentication) {
  const Bytes sealed = seal(random_bytes(40));
  std::vector<Bytes> altered{sealed};
  altered[0].push_back(0);
  for (size_t i = 0; i < sealed.size(); ++i) {
    altered.emplace_back(sealed.begin(), sealed.begin() + static_cast<long>(i));
    for (uint8_t bit : {0x01, 0x80}) {
      altered.push_back(sealed);
      altered.back()[i] ^= bit;
    }
  }
  for (size_t k = 0; k < altered.size(); ++k) {
    EXPECT_NE(crypt(blob_, nonce_, altered[k], kUnseal), 0) << "case " << k;
  }
  Bytes other_nonce = nonce_;
  other_nonce[11] ^= 1;
  EXPECT_EQ(crypt(blob_, other_nonce, sealed, kUnseal), km::kErrAuth);
  EXPECT_EQ(crypt(new_blob(), nonce_, sealed, kUnseal), km::kErrAuth);
}

TEST_F(HostKm, DamagedBlobOrWrongRootKeyFailsEveryCall) {
  for (size_t i = 0; i < blob_.size(); ++i) {
    Bytes bad = blob_;
    bad[i] ^= 0x10;
    EXPECT_EQ(crypt(bad, nonce_, Bytes(3), kSeal), km::kErrKeyBlob) << "byte " << i;
  }
  const Bytes sealed = seal(Bytes(3));
  // The data key is cached per process: a new root key counts from the next process on.
  write_file(kRootKey, random_bytes(32));
  km::forget_keys();
  EXPECT_EQ(crypt(blob_, nonce_, sealed, kUnseal), km::kErrKeyBlob);
  write_file(kRootKey, random_bytes(31));
  km::forget_keys();
  EXPECT_TRUE(new_blob(km::kErrRootKey).empty());
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(5), kSeal), km::kErrRootKey);
}

}  // namespace
