// The host key service with real OpenSSL and a real root key file on the private tmpfs; built
// a second time with KORA_KM_TOKEN_TESTS, where the same properties run against the PKCS#11
// backend on a private SoftHSM2 token.
#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "file_bytes.h"
#include "host_km.h"
#include "kora_host_km.h"
#include "ssl_KM_crypto_services.h"
#include "subprocess.h"
#ifdef KORA_KM_TOKEN_TESTS
#include <p11-kit/p11-kit.h>

#include "softhsm_token.h"
#endif

namespace {

using Bytes = std::vector<uint8_t>;

#ifndef KORA_KM_TOKEN_TESTS
// Link-time substitute for the file backend's random source, failing on demand.
bool g_random_fails = false;
}  // namespace
extern "C" int RAND_bytes(unsigned char* buf, int num) {
  return g_random_fails ? 0 : RAND_bytes_ex(nullptr, buf, static_cast<unsigned>(num), 0);
}
namespace {
#endif
namespace km = kora::km;
const char* const kRootKey = "/data/km/root.key";
constexpr int kSeal = SSL_KM_DIRECTION_SEAL, kUnseal = SSL_KM_DIRECTION_UNSEAL;

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
#ifdef KORA_KM_TOKEN_TESTS
    ASSERT_EQ(kora::test::make_softhsm_token("/data/hsm"), "");
    setenv("KORA_KM_PKCS11_URI", kora::test::token_uri().c_str(), 1);
#endif
    blob_ = new_blob();
  }
  Bytes seal(const Bytes& plain) {
    Bytes out;
    EXPECT_EQ(crypt(blob_, nonce_, plain, kSeal, &out), 0);
    return out;
  }
  Bytes blob_, nonce_ = random_bytes(km::kNonceLen);
};

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

// A process that starts afresh (here: a child that drops every cached key and handle) reads
// the root key again and opens what this one sealed.
TEST_F(HostKm, AFreshProcessOpensWhatWasSealed) {
  const Bytes plain = random_bytes(300), sealed = seal(plain);
  EXPECT_EQ(kora::test::in_child([&] {
              km::forget_keys();
              Bytes back;
              return crypt(blob_, nonce_, sealed, kUnseal, &back) == 0 && back == plain ? 0 : 1;
            }),
            0);
}

// Threads sealing and opening at once under two key blobs in turn (each switch replaces the
// cached key, or the token's unwrapped key) all get their own bytes back.
TEST_F(HostKm, ThreadsUnderTwoKeyBlobsGetTheirOwnBytesBack) {
  const Bytes blobs[2] = {blob_, new_blob()};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        const Bytes& blob = blobs[(t + i) % 2];
        const Bytes plain = random_bytes(static_cast<size_t>(100 + i));
        Bytes sealed, back;
        if (crypt(blob, nonce_, plain, kSeal, &sealed) != 0 ||
            crypt(blob, nonce_, sealed, kUnseal, &back) != 0 || back != plain) {
          ++failures;
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
}

#ifndef KORA_KM_TOKEN_TESTS
// The first use creates the root key and its directory, private, with no temporary file left
// behind. Every byte of a new key is random, the last one too.
TEST_F(HostKm, FirstUseCreatesOnePrivateRootKey) {
  struct stat st {};
  ASSERT_EQ(stat("/data/km", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  ASSERT_EQ(stat(kRootKey, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(st.st_size, 32);
  EXPECT_EQ(std::system("test $(ls -A /data/km | wc -l) -eq 1"), 0) << "temporary files left behind";
  EXPECT_EQ(blob_.size(), km::kKeyBlobLen);
  std::string last_bytes;
  for (int i = 0; i < 16; ++i) {
    ASSERT_EQ(km::file::make_root_key(true), km::kOk);
    std::ifstream key(kRootKey, std::ios::binary);
    key.seekg(31);
    last_bytes += static_cast<char>(key.get());
  }
  EXPECT_NE(last_bytes, std::string(16, last_bytes[0])) << "the last byte of new root keys never changes";
}

// A root key that cannot be written in full (the file system is full) is never put in place;
// a directory that cannot be made is named with the reason.
TEST_F(HostKm, RootKeyThatCannotBeWrittenIsNotPlaced) {
  const struct {
    const char *setup, *path, *says;
  } cases[] = {{"rm /data/km/root.key && mount -t tmpfs -o size=4k,mode=0700 tmpfs /data/km && "
                "(head -c 8192 /dev/zero > /data/km/fill; true)",
                kRootKey, "cannot create the root key /data/km/root.key: "},
               {"mkdir /data/ro && mount -t tmpfs -o ro tmpfs /data/ro", "/data/ro/a/b/root.key",
                "directory /data/ro/a/b: Read-only file system"}};
  for (const auto& c : cases) {
    ASSERT_EQ(std::system(c.setup), 0);
    setenv("KORA_KM_ROOT_KEY", c.path, 1);
    km::forget_keys();
    EXPECT_TRUE(new_blob(km::kErrRootKey).empty());
    EXPECT_NE(std::string(kora_km_last_error()).find(c.says), std::string::npos) << kora_km_last_error();
    struct stat st {};
    EXPECT_NE(stat(c.path, &st), 0) << "a partly written root key was put in place";
  }
}

TEST_F(HostKm, DamagedBlobOrWrongRootKeyFailsEveryCall) {
  for (size_t i = 0; i < blob_.size(); ++i) {
    Bytes bad = blob_;
    bad[i] ^= 0x10;
    EXPECT_EQ(crypt(bad, nonce_, Bytes(3), kSeal), km::kErrKeyBlob) << "byte " << i;
  }
  const Bytes sealed = seal(Bytes(3));
  // The data key is cached per process: a new root key counts from the next process on.
  ASSERT_TRUE(kora::test::spill(kRootKey, std::string(32, 'w')));
  km::forget_keys();
  EXPECT_EQ(crypt(blob_, nonce_, sealed, kUnseal), km::kErrKeyBlob);
  ASSERT_TRUE(kora::test::spill(kRootKey, std::string(31, 'w')));
  km::forget_keys();
  EXPECT_TRUE(new_blob(km::kErrRootKey).empty());
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(5), kSeal), km::kErrRootKey);
}

// A root key that someone else could have planted or can read is refused, with the file and
// the rule named; a missing one is not made again while a key blob exists.
struct Planted {
  const char* label;
  const char* setup;  // shell, run after the root key exists
  const char* path;   // KORA_KM_ROOT_KEY then
  const char* says;
};
const Planted kPlanted[] = {
    {"symlink", "mv /data/km/root.key /data/km/real && ln -s real /data/km/root.key", kRootKey,
     "symbolic link"},
    {"fifo", "rm /data/km/root.key && mkfifo -m 600 /data/km/root.key", kRootKey, "not a regular file"},
    {"directory", "rm /data/km/root.key && mkdir /data/km/root.key", kRootKey, "not a regular file"},
    {"group_readable", "chmod 640 /data/km/root.key", kRootKey, "group or other permission"},
    {"other_user", "chown nobody /data/km/root.key", kRootKey, "not owned by the effective user"},
    {"open_directory", "chmod 1777 /data/km", kRootKey, "directory /data/km is writable by others"},
    {"relative", "true", "km/root.key", "must be an absolute path"},
    {"file_for_directory", "touch /data/km/plain", "/data/km/plain/sub/root.key",
     "directory /data/km/plain/sub: Not a directory"},
    {"missing", "rm /data/km/root.key", kRootKey, "missing while a key blob exists"},
};
void PrintTo(const Planted& p, std::ostream* os) { *os << p.label; }
class HostKmPlanted : public HostKm, public testing::WithParamInterface<Planted> {};

TEST_P(HostKmPlanted, RefusedWithTheFileAndTheRuleNamed) {
  const Bytes sealed = seal(Bytes(8));
  ASSERT_EQ(std::system(GetParam().setup), 0);
  setenv("KORA_KM_ROOT_KEY", GetParam().path, 1);
  km::forget_keys();
  EXPECT_EQ(crypt(blob_, nonce_, sealed, kUnseal), km::kErrRootKey);
  const std::string why = kora_km_last_error();
  EXPECT_NE(why.find(GetParam().says), std::string::npos) << why;
  EXPECT_NE(why.find(GetParam().path[0] == '/' ? "/data/km" : GetParam().path), std::string::npos) << why;
  EXPECT_LT(kora_km_root_key_state(), 1);
  struct stat st {};
  EXPECT_TRUE(std::string(GetParam().label) != "missing" || stat(kRootKey, &st) != 0)
      << "a new root key was made";
}
INSTANTIATE_TEST_SUITE_P(Files, HostKmPlanted, testing::ValuesIn(kPlanted),
                         [](const auto& p) { return std::string(p.param.label); });
#else
bool logged_in(CK_RV rv) { return rv == CKR_OK || rv == CKR_USER_ALREADY_LOGGED_IN; }

// Reads an attribute of the token's root key, and counts the AES keys the application sees,
// through a session of the test's own.
CK_BBOOL root_key_flag(CK_ATTRIBUTE_TYPE type, CK_RV* value_rv, CK_ULONG* keys) {
  CK_FUNCTION_LIST* m = p11_kit_module_load(KORA_SOFTHSM2_MODULE, 0);
  CK_SLOT_ID slots[8];
  CK_ULONG n = 8, found = 0;
  CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
  char label[] = "kora-root";
  CK_ATTRIBUTE by_label{CKA_LABEL, label, sizeof label - 1};
  CK_OBJECT_CLASS aes = CKO_SECRET_KEY;
  CK_ATTRIBUTE by_class{CKA_CLASS, &aes, sizeof aes};
  CK_OBJECT_HANDLE all[8];
  CK_BBOOL flag = CK_FALSE;
  CK_ATTRIBUTE attr{type, &flag, sizeof flag};
  uint8_t secret[32];
  CK_ATTRIBUTE value{CKA_VALUE, secret, sizeof secret};
  auto* pin = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(kora::test::kTokenPin));
  EXPECT_TRUE(m != nullptr && p11_kit_module_initialize(m) == CKR_OK &&
              m->C_GetSlotList(CK_TRUE, slots, &n) == CKR_OK &&
              m->C_OpenSession(slots[0], CKF_SERIAL_SESSION, nullptr, nullptr, &s) == CKR_OK &&
              // The key service's session has logged the application in already.
              logged_in(m->C_Login(s, CKU_USER, pin, 4)) && m->C_FindObjectsInit(s, &by_label, 1) == CKR_OK &&
              m->C_FindObjects(s, &key, 1, &found) == CKR_OK && m->C_FindObjectsFinal(s) == CKR_OK &&
              found == 1 && m->C_GetAttributeValue(s, key, &attr, 1) == CKR_OK &&
              m->C_FindObjectsInit(s, &by_class, 1) == CKR_OK && m->C_FindObjects(s, all, 8, keys) == CKR_OK &&
              m->C_FindObjectsFinal(s) == CKR_OK);
  *value_rv = m->C_GetAttributeValue(s, key, &value, 1);
  (void)m->C_CloseSession(s);
  (void)p11_kit_module_finalize(m);
  p11_kit_module_release(m);
  return flag;
}

// The data key of a key blob no longer in use is not left in the token either.
TEST_F(HostKm, TokenRootKeyIsSensitiveAndNeverExtractable) {
  seal(Bytes(3));
  EXPECT_EQ(crypt(new_blob(), nonce_, Bytes(3), kSeal), 0);
  CK_RV value_rv = CKR_OK;
  CK_ULONG keys = 0;
  EXPECT_EQ(root_key_flag(CKA_SENSITIVE, &value_rv, &keys), CK_TRUE);
  EXPECT_EQ(root_key_flag(CKA_EXTRACTABLE, &value_rv, &keys), CK_FALSE);
  EXPECT_EQ(root_key_flag(CKA_NEVER_EXTRACTABLE, &value_rv, &keys), CK_TRUE);
  EXPECT_EQ(value_rv, CKR_ATTRIBUTE_SENSITIVE) << "the key's value was read out";
  EXPECT_EQ(keys, 2u) << "the root key and one data key";
}

// A token that misbehaves is named: a seal of the wrong length, a root key it will not remove.
// A session it will not end keeps no data key: that is removed before.
TEST_F(HostKm, MisbehavingTokenIsNamedAndKeepsNoDataKey) {
  setenv("KORA_KM_PKCS11_URI", "pkcs11:token=kora;object=kora-root?module-path=" KORA_FAKE_PKCS11 "&pin-value=1234",
         1);
  setenv("KORA_P11_FAULT", "C_Encrypt", 1);
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(3), kSeal), km::kErrToken);
  EXPECT_STREQ(kora_km_last_error(), "the token sealed 3 bytes into 18");
  setenv("KORA_P11_FAULT", "C_DestroyObject", 1);
  EXPECT_EQ(kora_km_make_root_key(1), km::kErrToken);
  EXPECT_NE(std::string(kora_km_last_error()).find("removing the old root key"), std::string::npos);
  setenv("KORA_P11_FAULT", "", 1);
  seal(Bytes(3));
  setenv("KORA_P11_FAULT", "C_Logout C_CloseSession C_Finalize", 1);
  km::forget_keys();
  CK_RV value_rv = CKR_OK;
  CK_ULONG keys = 0;
  root_key_flag(CKA_SENSITIVE, &value_rv, &keys);
  EXPECT_EQ(keys, 1u) << "a data key outlived its session";
}

// A seal of one backend is refused by the other as another backend's, not as damage.
TEST_F(HostKm, EachBackendRefusesTheOthersSeal) {
  const Bytes by_token = seal(Bytes(10));
  const std::string uri = getenv("KORA_KM_PKCS11_URI");
  unsetenv("KORA_KM_PKCS11_URI");
  const Bytes file_blob = new_blob();
  Bytes by_file;
  ASSERT_EQ(crypt(file_blob, nonce_, Bytes(10), kSeal, &by_file), 0);
  EXPECT_EQ(crypt(file_blob, nonce_, by_token, kUnseal), km::kErrFormat);
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(3), kSeal), km::kErrKeyBlob);
  setenv("KORA_KM_PKCS11_URI", uri.c_str(), 1);
  EXPECT_EQ(crypt(blob_, nonce_, by_file, kUnseal), km::kErrFormat);
  EXPECT_NE(std::string(kora_km_last_error()).find("file backend"), std::string::npos);
  EXPECT_EQ(crypt(file_blob, nonce_, Bytes(3), kSeal), km::kErrKeyBlob);
}

// What a user gets wrong in the URI or the token, each said plainly; a PIN from a file works.
struct TokenCase {
  const char* label;
  std::string uri;
  int rc;
  const char* says;
};
void PrintTo(const TokenCase& c, std::ostream* os) { *os << c.label; }
class HostKmTokenUri : public HostKm, public testing::WithParamInterface<TokenCase> {};

TEST_P(HostKmTokenUri, SaysWhatIsWrong) {
  std::FILE* f = std::fopen("/data/hsm/pin", "w");
  std::fprintf(f, "%s\n", kora::test::kTokenPin);
  std::fclose(f);
  const Bytes sealed = seal(Bytes(5));
  setenv("KORA_KM_PKCS11_URI", GetParam().uri.c_str(), 1);  // in the same process: another token
  // A second call fails the same way (and a refused PIN is not tried on the token again).
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(crypt(blob_, nonce_, sealed, kUnseal), GetParam().rc);
    EXPECT_NE(std::string(kora_km_last_error()).find(GetParam().says), std::string::npos)
        << kora_km_last_error();
  }
}
INSTANTIATE_TEST_SUITE_P(
    Uris, HostKmTokenUri,
    testing::Values(
        TokenCase{"pin_file", kora::test::token_uri("pin-source=file:/data/hsm/pin"), 0, ""},
        TokenCase{"wrong_pin", kora::test::token_uri("pin-value=9999"), km::kErrToken, "wrong PIN"},
        TokenCase{"missing_token",
                  "pkcs11:token=nope;object=kora-root?module-path=" KORA_SOFTHSM2_MODULE "&pin-value=1234",
                  km::kErrToken, "no token"},
        TokenCase{"missing_key", kora::test::token_uri("pin-value=1234", "other"), km::kErrRootKey,
                  "has no root key"},
        TokenCase{"other_id", kora::test::token_uri("pin-value=1234", "kora-root;id=%01"), km::kErrRootKey,
                  "has no root key"},
        TokenCase{"no_module", "pkcs11:token=kora;object=kora-root?module-path=/nonexistent.so",
                  km::kErrToken, "cannot load"}),
    [](const auto& p) { return std::string(p.param.label); });
#endif

// The environment's root-key path only when it names one: empty or unset means the default.
TEST_F(HostKm, EmptyRootKeyVariableMeansTheDefaultPath) {
  unsetenv("KORA_KM_ROOT_KEY");
  const std::string fallback = km::root_key_path();
  setenv("KORA_KM_ROOT_KEY", "", 1);
  EXPECT_EQ(km::root_key_path(), fallback);
  EXPECT_EQ(fallback.front(), '/');
}

// Asked to keep it, an existing root key stays; asked to replace it, old key blobs stop working.
TEST_F(HostKm, RootKeyIsReplacedOnlyWhenAsked) {
  EXPECT_EQ(kora_km_make_root_key(0), 0);
  seal(Bytes(3));
  EXPECT_EQ(kora_km_make_root_key(1), 0);
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(3), kSeal), km::kErrKeyBlob);
}

// A failed call's reason does not outlive it: the next call that works reports none.
TEST_F(HostKm, LastErrorIsClearedByTheNextCall) {
  EXPECT_NE(crypt(blob_, nonce_, Bytes(3, 'x'), 7), 0);
  EXPECT_STRNE(kora_km_last_error(), "");
  seal(Bytes(3, 'x'));
  EXPECT_STREQ(kora_km_last_error(), "");
}

#ifndef KORA_KM_TOKEN_TESTS
// Once the pool of fresh IVs is used up, a random source that fails fails the seal: an IV is
// never handed out twice.
TEST_F(HostKm, FailingRandomSourceFailsTheSealInsteadOfReusingAnIv) {
  int failed = 0;
  g_random_fails = true;
  for (int i = 0; i <= 340; ++i) {
    failed += crypt(blob_, nonce_, Bytes(3, 'x'), kSeal) != 0 ? 1 : 0;
  }
  g_random_fails = false;
  EXPECT_GT(failed, 0);
}
#endif

}  // namespace
