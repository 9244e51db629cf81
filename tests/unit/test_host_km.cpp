// The host key service with real OpenSSL and a real root key file on the private tmpfs.
#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "host_km.h"
#include "ssl_KM_crypto_services.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace km = kora::km;

const char* const kRootKey = "/data/km/root.key";

void write_file(const std::string& path, const Bytes& b) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

Bytes read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

Bytes random_bytes(size_t n) {
  Bytes b(n);
  RAND_bytes(b.data(), static_cast<int>(n));
  return b;
}

// Calls the service; on success returns the output and frees the service's buffer. A
// failure must leave the caller's pointer as it was.
int crypt(const Bytes& blob, const Bytes& nonce, const Bytes& in, int direction, Bytes* out) {
  static int sentinel;
  void* p = &sentinel;
  size_t len = 12345;
  const int rc = ssl_KM_TA_crypto_services_encrypt_decrypt_data(blob.data(), blob.size(), nonce.data(),
                                                                in.data(), in.size(), &p, &len, direction);
  if (rc == 0) {
    out->assign(static_cast<uint8_t*>(p), static_cast<uint8_t*>(p) + len);
    std::free(p);
  } else {
    EXPECT_EQ(p, &sentinel) << "output pointer changed on failure";
  }
  return rc;
}

class HostKm : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(setenv("KORA_KM_ROOT_KEY", kRootKey, 1), 0);
    nonce_ = random_bytes(km::kNonceLen);
  }
  Bytes new_blob(int expected_rc = 0) {
    uint8_t* p = nullptr;
    size_t len = 0;
    EXPECT_EQ(ssl_KM_TA_crypto_services_generate_keyblob(&p, &len), expected_rc);
    Bytes b(p, p + len);
    std::free(p);
    return b;
  }
  Bytes seal(const Bytes& blob, const Bytes& plain) {
    Bytes out;
    EXPECT_EQ(crypt(blob, nonce_, plain, SSL_KM_DIRECTION_SEAL, &out), 0);
    return out;
  }
  Bytes nonce_;
};

TEST_F(HostKm, RootKeyIsCreatedPrivateOnFirstUse) {
  ::umask(022);
  const Bytes blob = new_blob();
  EXPECT_EQ(blob.size(), km::kKeyBlobLen);
  struct stat st {};
  ASSERT_EQ(stat("/data/km", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  ASSERT_EQ(stat(kRootKey, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_size, 32);
  // Kept, not replaced, by later calls; no temporary file is left behind.
  const Bytes root = read_file(kRootKey);
  new_blob();
  EXPECT_EQ(read_file(kRootKey), root);
  EXPECT_EQ(std::system("test $(ls -A /data/km | wc -l) -eq 1"), 0);
}

TEST_F(HostKm, RootKeyPathComesFromTheEnvironmentOrTheDefault) {
  EXPECT_STREQ(km::root_key_path(), kRootKey);
  ASSERT_EQ(setenv("KORA_KM_ROOT_KEY", "", 1), 0);
  EXPECT_STREQ(km::root_key_path(), "/var/lib/kora-km/root.key");
  ASSERT_EQ(unsetenv("KORA_KM_ROOT_KEY"), 0);
  EXPECT_STREQ(km::root_key_path(), "/var/lib/kora-km/root.key");
}

TEST_F(HostKm, RoundTripsKeepEveryLength) {
  const Bytes blob = new_blob();
  for (size_t n : {0, 1, 15, 16, 17, 255, 4096, 100000}) {
    const Bytes plain = random_bytes(n);
    const Bytes sealed = seal(blob, plain);
    ASSERT_EQ(sealed.size(), n + km::kSealOverhead) << n;
    EXPECT_EQ(sealed[0], km::kSealVersion);
    Bytes back;
    ASSERT_EQ(crypt(blob, nonce_, sealed, SSL_KM_DIRECTION_UNSEAL, &back), 0) << n;
    EXPECT_EQ(back, plain) << n;
  }
}

TEST_F(HostKm, SealsUseAFreshIvNotTheNonce) {
  const Bytes blob = new_blob();
  const Bytes plain(64, 'a');
  const Bytes a = seal(blob, plain);
  const Bytes b = seal(blob, plain);
  EXPECT_NE(a, b);
  EXPECT_NE(Bytes(a.begin() + 1, a.begin() + 13), Bytes(b.begin() + 1, b.begin() + 13));
  EXPECT_NE(Bytes(a.begin() + 1, a.begin() + 13), nonce_);
  EXPECT_EQ(std::search(a.begin(), a.end(), plain.begin(), plain.begin() + 16), a.end())
      << "plain text visible";
}

TEST_F(HostKm, EveryAlterationIsRejected) {
  const Bytes blob = new_blob();
  const Bytes sealed = seal(blob, random_bytes(40));
  Bytes out;
  for (size_t i = 0; i < sealed.size(); ++i) {
    for (uint8_t bit : {0x01, 0x80}) {
      Bytes t = sealed;
      t[i] ^= bit;
      EXPECT_NE(crypt(blob, nonce_, t, SSL_KM_DIRECTION_UNSEAL, &out), 0) << "flip at " << i;
    }
  }
  for (size_t len = 0; len < sealed.size(); ++len) {
    const Bytes t(sealed.begin(), sealed.begin() + static_cast<long>(len));
    EXPECT_NE(crypt(blob, nonce_, t, SSL_KM_DIRECTION_UNSEAL, &out), 0) << "truncated to " << len;
  }
  Bytes longer = sealed;
  longer.push_back(0);
  EXPECT_EQ(crypt(blob, nonce_, longer, SSL_KM_DIRECTION_UNSEAL, &out), km::kErrAuth);
}

TEST_F(HostKm, OtherNonceOrOtherDataKeyFailsAuthentication) {
  const Bytes blob = new_blob();
  const Bytes sealed = seal(blob, random_bytes(100));
  Bytes out;
  Bytes other_nonce = nonce_;
  other_nonce[11] ^= 1;
  EXPECT_EQ(crypt(blob, other_nonce, sealed, SSL_KM_DIRECTION_UNSEAL, &out), km::kErrAuth);
  EXPECT_EQ(crypt(new_blob(), nonce_, sealed, SSL_KM_DIRECTION_UNSEAL, &out), km::kErrAuth);
}

TEST_F(HostKm, DamagedKeyBlobFailsEveryCall) {
  const Bytes blob = new_blob();
  const Bytes plain = random_bytes(10);
  Bytes out;
  for (size_t i = 0; i < blob.size(); ++i) {
    Bytes bad = blob;
    bad[i] ^= 0x10;
    EXPECT_EQ(crypt(bad, nonce_, plain, SSL_KM_DIRECTION_SEAL, &out), km::kErrKeyBlob) << "byte " << i;
  }
  for (size_t len : {0, 32, 39, 41, 48}) {
    Bytes bad = blob;
    bad.resize(len, 0);
    EXPECT_EQ(crypt(bad, nonce_, plain, SSL_KM_DIRECTION_SEAL, &out), km::kErrKeyBlob) << "length " << len;
  }
}

TEST_F(HostKm, ReplacedRootKeyFailsOldBlobs) {
  const Bytes blob = new_blob();
  const Bytes sealed = seal(blob, random_bytes(10));
  write_file(kRootKey, random_bytes(32));
  Bytes out;
  EXPECT_EQ(crypt(blob, nonce_, sealed, SSL_KM_DIRECTION_UNSEAL, &out), km::kErrKeyBlob);
  EXPECT_EQ(crypt(blob, nonce_, Bytes(3), SSL_KM_DIRECTION_SEAL, &out), km::kErrKeyBlob);
}

struct BadRootCase {
  const char* name;
  long size;  // -1: a directory in place of the file
};

class HostKmBadRoot : public HostKm, public testing::WithParamInterface<BadRootCase> {};

TEST_P(HostKmBadRoot, EveryCallFailsCleanly) {
  const Bytes blob = new_blob();  // made under a good key first
  ASSERT_EQ(unlink(kRootKey), 0);
  if (GetParam().size < 0) {
    ASSERT_EQ(mkdir(kRootKey, 0700), 0);
  } else {
    write_file(kRootKey, random_bytes(static_cast<size_t>(GetParam().size)));
  }
  uint8_t* p = nullptr;
  size_t len = 0;
  EXPECT_EQ(ssl_KM_TA_crypto_services_generate_keyblob(&p, &len), km::kErrRootKey);
  EXPECT_EQ(p, nullptr);
  Bytes out;
  EXPECT_EQ(crypt(blob, nonce_, Bytes(5), SSL_KM_DIRECTION_SEAL, &out), km::kErrRootKey);
}

INSTANTIATE_TEST_SUITE_P(Cases, HostKmBadRoot,
                         testing::Values(BadRootCase{"Empty", 0}, BadRootCase{"Short", 31},
                                         BadRootCase{"Long", 33}, BadRootCase{"Directory", -1}),
                         [](const auto& tp) { return std::string(tp.param.name); });

TEST_F(HostKm, UncreatableRootKeyFails) {
  ASSERT_EQ(setenv("KORA_KM_ROOT_KEY", "/data/data_velto/file/root.key", 1), 0);
  write_file("/data/data_velto/file", Bytes(1));  // a file where the directory should be
  uint8_t* p = nullptr;
  size_t len = 0;
  EXPECT_EQ(ssl_KM_TA_crypto_services_generate_keyblob(&p, &len), km::kErrRootKey);
}

TEST_F(HostKm, BadArgumentsAreRefused) {
  const Bytes blob = new_blob();
  const Bytes in(8);
  void* out = nullptr;
  size_t out_len = 0;
  const uint8_t* b = blob.data();
  const uint8_t* n = nonce_.data();
  auto call = [&](const uint8_t* kb, const uint8_t* nn, const void* i, size_t il, void** o, size_t* ol,
                  int dir) {
    return ssl_KM_TA_crypto_services_encrypt_decrypt_data(kb, blob.size(), nn, i, il, o, ol, dir);
  };
  EXPECT_EQ(call(nullptr, n, in.data(), 8, &out, &out_len, 0), km::kErrArgs);
  EXPECT_EQ(call(b, nullptr, in.data(), 8, &out, &out_len, 0), km::kErrArgs);
  EXPECT_EQ(call(b, n, nullptr, 8, &out, &out_len, 0), km::kErrArgs);
  EXPECT_EQ(call(b, n, in.data(), 8, nullptr, &out_len, 0), km::kErrArgs);
  EXPECT_EQ(call(b, n, in.data(), 8, &out, nullptr, 1), km::kErrArgs);
  EXPECT_EQ(call(b, n, in.data(), 8, &out, &out_len, 2), km::kErrArgs);
  EXPECT_EQ(call(b, n, in.data(), 8, &out, &out_len, -1), km::kErrArgs);
  EXPECT_EQ(ssl_KM_TA_crypto_services_generate_keyblob(nullptr, &out_len), km::kErrArgs);
  EXPECT_EQ(out, nullptr);
}

// Several processes start at once with no root key: exactly one key wins and every blob
// handed out is wrapped under it.
TEST_F(HostKm, ConcurrentFirstUseAgreesOnOneRootKey) {
  constexpr int kProcs = 8;
  std::vector<pid_t> kids;
  for (int i = 0; i < kProcs; ++i) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      uint8_t* p = nullptr;
      size_t len = 0;
      if (ssl_KM_TA_crypto_services_generate_keyblob(&p, &len) != 0) {
        _exit(1);
      }
      write_file("/data/blob" + std::to_string(i), Bytes(p, p + len));
      _exit(0);
    }
    kids.push_back(pid);
  }
  for (pid_t pid : kids) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  for (int i = 0; i < kProcs; ++i) {
    const Bytes blob = read_file("/data/blob" + std::to_string(i));
    Bytes out;
    EXPECT_EQ(crypt(blob, nonce_, Bytes(4), SSL_KM_DIRECTION_SEAL, &out), 0) << "blob of process " << i;
  }
  EXPECT_EQ(std::system("test $(ls -A /data/km | wc -l) -eq 1"), 0) << "temporary files left behind";
}

}  // namespace
