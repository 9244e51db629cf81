// The host key service with real OpenSSL and a real root key file on the private tmpfs.
#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
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

// Calls the service and frees its buffer. A failure must leave the caller's pointer alone.
int crypt(const Bytes& blob, const Bytes& nonce, const Bytes& in, int direction, Bytes* out = nullptr) {
  static int sentinel;
  void* p = &sentinel;
  size_t len = 0;
  const int rc = ssl_KM_TA_crypto_services_encrypt_decrypt_data(blob.data(), blob.size(), nonce.data(),
                                                                in.data(), in.size(), &p, &len, direction);
  if (rc != 0) {
    EXPECT_EQ(p, &sentinel) << "output pointer changed on failure";
  } else {
    if (out != nullptr) {
      out->assign(static_cast<uint8_t*>(p), static_cast<uint8_t*>(p) + len);
    }
    std::free(p);
  }
  return rc;
}

class HostKm : public testing::Test {
 protected:
  void SetUp() override {
    setenv("KORA_KM_ROOT_KEY", kRootKey, 1);
    blob_ = new_blob();
  }
  Bytes seal(const Bytes& plain) {
    Bytes out;
    EXPECT_EQ(crypt(blob_, nonce_, plain, kSeal, &out), 0);
    return out;
  }
  Bytes blob_;
  Bytes nonce_ = random_bytes(km::kNonceLen);
};

// Several processes start at once with no root key: one key wins, made private, and every
// blob handed out is wrapped under it.
TEST(HostKmRootKey, ConcurrentFirstUseCreatesOnePrivateKey) {
  ASSERT_EQ(setenv("KORA_KM_ROOT_KEY", kRootKey, 1), 0);
  ::umask(022);
  std::vector<pid_t> kids;
  for (int i = 0; i < 8; ++i) {
    if (const pid_t pid = fork(); pid != 0) {
      kids.push_back(pid);
      continue;
    }
    const Bytes blob = new_blob();
    write_file("/data/blob" + std::to_string(i), blob);
    _exit(blob.size() == km::kKeyBlobLen ? 0 : 1);
  }
  for (pid_t pid : kids) {
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
  }
  struct stat st {};
  ASSERT_EQ(stat("/data/km", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  ASSERT_EQ(stat(kRootKey, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_size, 32);
  EXPECT_EQ(std::system("test $(ls -A /data/km | wc -l) -eq 1"), 0) << "temporary files left behind";
  for (int i = 0; i < 8; ++i) {
    std::ifstream in("/data/blob" + std::to_string(i), std::ios::binary);
    const Bytes blob(std::istreambuf_iterator<char>(in), {});
    EXPECT_EQ(crypt(blob, Bytes(12), Bytes(4), kSeal), 0) << i;
  }
}

TEST_F(HostKm, RoundTripsKeepEveryLengthWithAFreshIv) {
  for (size_t n : {0, 1, 16, 17, 4096, 100000}) {
    const Bytes plain = random_bytes(n);
    const Bytes sealed = seal(plain);
    ASSERT_EQ(sealed.size(), n + 29) << n;
    EXPECT_EQ(sealed[0], 1);
    Bytes back;
    ASSERT_EQ(crypt(blob_, nonce_, sealed, kUnseal, &back), 0) << n;
    EXPECT_EQ(back, plain) << n;
  }
  const Bytes a = seal(Bytes(64, 'a')), b = seal(Bytes(64, 'a'));
  EXPECT_NE(Bytes(a.begin() + 1, a.begin() + 13), Bytes(b.begin() + 1, b.begin() + 13));
  EXPECT_NE(Bytes(a.begin() + 1, a.begin() + 13), nonce_) << "the provisioned nonce used as IV";
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

TEST_F(HostKm, DamagedBlobOrReplacedRootKeyFailsEveryCall) {
  std::vector<Bytes> bad(blob_.size(), blob_);
  for (size_t i = 0; i < blob_.size(); ++i) {
    bad[i][i] ^= 0x10;
  }
  for (size_t len : {0, 39, 41}) {
    bad.push_back(blob_);
    bad.back().resize(len);
  }
  for (size_t k = 0; k < bad.size(); ++k) {
    EXPECT_EQ(crypt(bad[k], nonce_, Bytes(3), kSeal), km::kErrKeyBlob) << "case " << k;
  }
  const Bytes sealed = seal(Bytes(3));
  write_file(kRootKey, random_bytes(32));
  EXPECT_EQ(crypt(blob_, nonce_, sealed, kUnseal), km::kErrKeyBlob);
}

// Root key file sizes; -1 puts a directory in its place.
class HostKmBadRoot : public HostKm, public testing::WithParamInterface<long> {};

TEST_P(HostKmBadRoot, EveryCallFailsCleanly) {
  ASSERT_EQ(unlink(kRootKey), 0);
  if (GetParam() < 0) {
    ASSERT_EQ(mkdir(kRootKey, 0700), 0);
  } else {
    write_file(kRootKey, random_bytes(static_cast<size_t>(GetParam())));
  }
  EXPECT_TRUE(new_blob(km::kErrRootKey).empty());
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(5), kSeal), km::kErrRootKey);
}

INSTANTIATE_TEST_SUITE_P(Sizes, HostKmBadRoot, testing::Values(0L, 31L, 33L, -1L));

TEST_F(HostKm, BadArgumentsAreRefused) {
  const uint8_t *b = blob_.data(), *n = nonce_.data();
  const Bytes in(8);
  void* out = nullptr;
  size_t len = 0;
  auto call = [&](const uint8_t* kb, const uint8_t* nn, const void* i, void** o, size_t* ol, int dir) {
    return ssl_KM_TA_crypto_services_encrypt_decrypt_data(kb, blob_.size(), nn, i, 8, o, ol, dir);
  };
  EXPECT_EQ(call(nullptr, n, in.data(), &out, &len, 0), km::kErrArgs);
  EXPECT_EQ(call(b, nullptr, in.data(), &out, &len, 0), km::kErrArgs);
  EXPECT_EQ(call(b, n, nullptr, &out, &len, 0), km::kErrArgs);
  EXPECT_EQ(call(b, n, in.data(), nullptr, &len, 1), km::kErrArgs);
  EXPECT_EQ(call(b, n, in.data(), &out, nullptr, 1), km::kErrArgs);
  EXPECT_EQ(call(b, n, in.data(), &out, &len, 2), km::kErrArgs);
  EXPECT_EQ(ssl_KM_TA_crypto_services_generate_keyblob(nullptr, &len), km::kErrArgs);
  EXPECT_EQ(out, nullptr);
}

}  // namespace
