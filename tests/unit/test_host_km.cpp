// The host key service with real OpenSSL and a real root key file on the private tmpfs; built
// a second time with KORA_KM_TOKEN_TESTS, where the same properties run against the PKCS#11
// backend on a private SoftHSM2 token.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
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

#ifndef KORA_KM_TOKEN_TESTS
// Link-time substitute for the file backend's random source, failing on demand.
static bool g_random_fails = false;
extern "C" int RAND_bytes(unsigned char* buf, int num) {
  return g_random_fails ? 0 : RAND_bytes_ex(nullptr, buf, static_cast<unsigned>(num), 0);
}
#endif

namespace {

using Bytes = std::vector<uint8_t>;
using testing::HasSubstr;
namespace km = kora::km;
namespace fs = std::filesystem;
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

// A case of a table: a shell setup or a URI, the root key path, what the message says, the
// result.
struct Case {
  const char* label;
  std::string setup;
  const char* path;
  const char* says;
  int rc = km::kErrRootKey;
  bool create = false;  // by a new key blob, else opened for a sealed file
};
void PrintTo(const Case& c, std::ostream* os) { *os << c.label; }

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
class HostKmCase : public HostKm, public testing::WithParamInterface<Case> {};

// A failed call's reason does not outlive it: the next call that works reports none.
TEST_F(HostKm, RoundTripsKeepEveryLengthWithAFreshIvAlsoInAFreshProcessAndEveryAlterationFails) {
  EXPECT_NE(crypt(blob_, nonce_, Bytes(3, 'x'), 7), 0);
  EXPECT_STREQ(kora_km_last_error(), "bad arguments to the key service");
  for (size_t n : {0, 17, 100000}) {
    const Bytes plain = random_bytes(n), sealed = seal(plain);
    ASSERT_EQ(sealed.size(), n + 29) << n;
    Bytes back;
    ASSERT_EQ(crypt(blob_, nonce_, sealed, kUnseal, &back), 0) << n;
    EXPECT_EQ(back, plain) << n;
    EXPECT_STREQ(kora_km_last_error(), "");
  }
  const Bytes a = seal(Bytes(64, 'a')), b = seal(Bytes(64, 'a'));
  EXPECT_NE(Bytes(a.begin() + 1, a.begin() + 13), Bytes(b.begin() + 1, b.begin() + 13));
  // A process that starts afresh (here: a child that drops every cached key and handle) reads
  // the root key again and opens what this one sealed, also when started without standard
  // input, as daemons are (the root key then gets descriptor 0), or with errno at EINTR.
  const Bytes plain = random_bytes(300), sealed = seal(plain);
  EXPECT_EQ(kora::test::in_child([&] {
              ::close(0);
              km::forget_keys();
              errno = EINTR;  // left over from the caller's own interrupted call
              Bytes back;
              return crypt(blob_, nonce_, sealed, kUnseal, &back) == 0 && back == plain ? 0 : 1;
            }),
            0);
  // One byte more, every truncation, a low and a high bit flipped in each byte, another nonce,
  // another key blob; a damaged key blob fails every call.
  for (size_t i = 0; i < blob_.size(); ++i) {
    Bytes bad = blob_;
    bad[i] ^= 0x10;
    EXPECT_EQ(crypt(bad, nonce_, Bytes(3), kSeal), km::kErrKeyBlob) << "byte " << i;
  }
  const Bytes sealed40 = seal(random_bytes(40));
  std::vector<Bytes> altered{sealed40};
  altered[0].push_back(0);
  for (size_t i = 0; i < sealed40.size(); ++i) {
    altered.emplace_back(sealed40.begin(), sealed40.begin() + static_cast<long>(i));
    for (uint8_t bit : {0x01, 0x80}) {
      altered.push_back(sealed40);
      altered.back()[i] ^= bit;
    }
  }
  for (size_t k = 0; k < altered.size(); ++k) {
    EXPECT_NE(crypt(blob_, nonce_, altered[k], kUnseal), 0) << "case " << k;
  }
  Bytes other_nonce = nonce_;
  other_nonce[11] ^= 1;
  EXPECT_EQ(crypt(blob_, other_nonce, sealed40, kUnseal), km::kErrAuth);
  EXPECT_EQ(crypt(new_blob(), nonce_, sealed40, kUnseal), km::kErrAuth);
}

// Threads sealing and opening at once under two key blobs in turn (each switch replaces the
// cached key, or the token's unwrapped key) all get their own bytes back.
TEST_F(HostKm, ThreadsUnderTwoKeyBlobsGetTheirOwnBytesBackAndTheRootKeyIsReplacedOnlyWhenAsked) {
  const Bytes blobs[2] = {blob_, new_blob()};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 40; ++i) {
        const Bytes& blob = blobs[(t + i) % 2];
        const Bytes plain = random_bytes(static_cast<size_t>(100 + i));
        Bytes sealed, back;
        const bool ok = crypt(blob, nonce_, plain, kSeal, &sealed) == 0 &&
                        crypt(blob, nonce_, sealed, kUnseal, &back) == 0 && back == plain;
        failures += ok ? 0 : 1;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
  // Asked to keep it, an existing root key stays; asked to replace it, old key blobs stop working.
  // The environment's root-key path only when it names one: empty or unset means the default.
  EXPECT_EQ(kora_km_make_root_key(0), 0);
  seal(Bytes(3));
  EXPECT_EQ(kora_km_make_root_key(1), 0);
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(3), kSeal), km::kErrKeyBlob);
  EXPECT_THAT(kora_km_last_error(), HasSubstr("the key blob does not unwrap under the "));
  unsetenv("KORA_KM_ROOT_KEY");
  const std::string fallback = km::root_key_path();
  setenv("KORA_KM_ROOT_KEY", "", 1);
  EXPECT_EQ(km::root_key_path(), fallback);
  EXPECT_EQ(fallback.front(), '/');
}

#ifndef KORA_KM_TOKEN_TESTS
// Once the pool of fresh IVs is used up, a random source that fails fails the seal: an IV is
// never handed out twice.
// The first use creates the root key and its directory, private, with no temporary file left
// behind. Every byte of a new key is random, the last one too.
TEST_F(HostKm, FailingRandomSourceNeverReusesAnIvAndFirstUseCreatesOnePrivateRootKey) {
  int failed = 0;
  g_random_fails = true;
  for (int i = 0; i <= 340; ++i) {
    failed += crypt(blob_, nonce_, Bytes(3, 'x'), kSeal) != 0 ? 1 : 0;
  }
  EXPECT_EQ(km::file::make_root_key(true), km::kErrCrypto);
  EXPECT_STREQ(kora_km_last_error(), "no random bytes for a root key");
  g_random_fails = false;
  EXPECT_GT(failed, 0);
  EXPECT_EQ(fs::status("/data/km").permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(kRootKey).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::file_size(kRootKey), 32u);
  EXPECT_EQ(std::distance(fs::directory_iterator("/data/km"), {}), 1) << "temporary files left behind";
  EXPECT_EQ(blob_.size(), km::kKeyBlobLen);
  std::string last_bytes;
  for (int i = 0; i < 16; ++i) {
    ASSERT_EQ(km::file::make_root_key(true), km::kOk);
    last_bytes += kora::test::slurp(kRootKey).at(31);
  }
  EXPECT_NE(last_bytes, std::string(16, last_bytes[0])) << "the last byte of new root keys never changes";
}

// A root key that someone else could have planted or can read is refused, with the file and
// the rule named; a missing one is not made again while a key blob exists. One that cannot be
// made (the file system is full, a directory cannot be made) is not put in place, and why is said.
const Case kPlanted[] = {
    {"symlink", "cd /data/km && mv root.key real && ln -s real root.key", kRootKey,
     "is a symbolic link; it must be a regular file"},
    {"not_a_directory", "true", "/data/km/root.key/root.key",
     "root key /data/km/root.key/root.key: Not a directory"},
    {"fifo", "rm /data/km/root.key && mkfifo -m 600 /data/km/root.key", kRootKey, "not a regular file"},
    {"directory", "rm /data/km/root.key && mkdir /data/km/root.key", kRootKey, "not a regular file"},
    {"group_readable", "chmod 640 /data/km/root.key", kRootKey, "group or other permission"},
    {"other_user", "chown nobody /data/km/root.key", kRootKey, "not owned by the effective user"},
    {"open_directory", "chmod 1777 /data/km", kRootKey, "directory /data/km is writable by others"},
    {"relative", "true", "km/root.key", "must be an absolute path"},
    {"file_for_directory", "touch /data/km/plain", "/data/km/plain/sub/root.key",
     "directory /data/km/plain/sub: Not a directory"},
    {"missing", "rm /data/km/root.key", kRootKey, "missing while a key blob exists"},
    {"long", "head -c 33 /dev/urandom > /data/km/root.key", kRootKey, "is not 32 bytes long"},
    {"full",
     "rm /data/km/root.key && mount -t tmpfs -o size=4k,mode=0700 tmpfs /data/km && "
     "(head -c 8192 /dev/zero > /data/km/fill; true)",
     kRootKey, "cannot create the root key /data/km/root.key: ", km::kErrRootKey, true},
    {"read_only", "mkdir /data/ro && mount -t tmpfs -o ro tmpfs /data/ro", "/data/ro/a/b/root.key",
     "root key directory /data/ro/a/b: Read-only file system", km::kErrRootKey, true},
};

TEST_P(HostKmCase, RootKeyRefusedWithTheFileAndTheRuleNamed) {
  const Bytes sealed = seal(Bytes(8));
  ASSERT_EQ(std::system(GetParam().setup.c_str()), 0);
  setenv("KORA_KM_ROOT_KEY", GetParam().path, 1);
  km::forget_keys();
  EXPECT_TRUE(GetParam().create ? new_blob(km::kErrRootKey).empty()
                                : crypt(blob_, nonce_, sealed, kUnseal) == km::kErrRootKey);
  const std::string path = GetParam().path;
  EXPECT_THAT(kora_km_last_error(),
              testing::AllOf(HasSubstr(GetParam().says), HasSubstr(path.substr(0, path.rfind('/')))));
  EXPECT_LT(kora_km_root_key_state(), 1);
  EXPECT_TRUE((GetParam().label != std::string("missing") && !GetParam().create) ||
              access(path.c_str(), F_OK) != 0)
      << "a root key was made or put in place";
}
INSTANTIATE_TEST_SUITE_P(Files, HostKmCase, testing::ValuesIn(kPlanted), testing::PrintToStringParamName());
#else
// Through a session of the test's own: the root key's sensitive, extractable and
// never-extractable flags, what reading its value gives, and how many AES keys the
// application sees.
std::vector<CK_ULONG> look_into_token() {
  CK_BBOOL flag[3] = {};
  CK_FUNCTION_LIST* m = p11_kit_module_load(KORA_SOFTHSM2_MODULE, 0);
  CK_SLOT_ID slots[8];
  CK_ULONG n = 8, found = 0, keys = 0;
  CK_SESSION_HANDLE s = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE key = CK_INVALID_HANDLE, all[8];
  CK_OBJECT_CLASS aes = CKO_SECRET_KEY;
  CK_ATTRIBUTE by_label{CKA_LABEL, const_cast<char*>("kora-root"), 9}, by_class{CKA_CLASS, &aes, sizeof aes};
  CK_ATTRIBUTE flags[] = {
      {CKA_SENSITIVE, &flag[0], 1}, {CKA_EXTRACTABLE, &flag[1], 1}, {CKA_NEVER_EXTRACTABLE, &flag[2], 1}};
  uint8_t secret[32];
  CK_ATTRIBUTE value{CKA_VALUE, secret, sizeof secret};
  auto* pin = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(kora::test::kTokenPin));
  EXPECT_TRUE(m != nullptr && p11_kit_module_initialize(m) == CKR_OK &&
              m->C_GetSlotList(CK_TRUE, slots, &n) == CKR_OK &&
              m->C_OpenSession(slots[0], CKF_SERIAL_SESSION, nullptr, nullptr, &s) == CKR_OK &&
              // The key service's session has logged the application in already.
              m->C_Login(s, CKU_USER, pin, 4) == CKR_USER_ALREADY_LOGGED_IN &&
              m->C_FindObjectsInit(s, &by_label, 1) == CKR_OK &&
              m->C_FindObjects(s, &key, 1, &found) == CKR_OK && m->C_FindObjectsFinal(s) == CKR_OK &&
              found == 1 && m->C_GetAttributeValue(s, key, flags, 3) == CKR_OK &&
              m->C_FindObjectsInit(s, &by_class, 1) == CKR_OK &&
              m->C_FindObjects(s, all, 8, &keys) == CKR_OK && m->C_FindObjectsFinal(s) == CKR_OK);
  const CK_RV value_rv = m->C_GetAttributeValue(s, key, &value, 1);
  (void)m->C_CloseSession(s);
  (void)p11_kit_module_finalize(m);
  p11_kit_module_release(m);
  return {flag[0], flag[1], flag[2], value_rv, keys};
}

// The data key of a key blob no longer in use is not left in the token either. A seal of one
// backend is refused by the other as another backend's, not as damage.
TEST_F(HostKm, TokenRootKeyIsSensitiveAndEachBackendRefusesTheOthersSeal) {
  seal(Bytes(3));
  EXPECT_EQ(crypt(new_blob(), nonce_, Bytes(3), kSeal), 0);
  // The value is not read out; the root key and one data key are left.
  EXPECT_EQ(look_into_token(),
            (std::vector<CK_ULONG>{CK_TRUE, CK_FALSE, CK_TRUE, CKR_ATTRIBUTE_SENSITIVE, 2}));
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
  EXPECT_THAT(kora_km_last_error(), HasSubstr("file backend"));
  EXPECT_EQ(crypt(file_blob, nonce_, Bytes(3), kSeal), km::kErrKeyBlob);
}

// A token that misbehaves is named: a root key it will not remove, a seal of the wrong length.
// A data key it will not remove is not taken for the root key named by id. A session it will
// not end keeps no data key: that is removed before.
TEST_F(HostKm, MisbehavingTokenIsNamedAndKeepsNoDataKey) {
  setenv("KORA_KM_PKCS11_URI", "pkcs11:id=%01?module-path=" KORA_FAKE_PKCS11 "&pin-value=1234", 1);
  setenv("KORA_P11_FAULT", "C_DestroyObject C_Logout C_CloseSession C_Finalize", 1);
  blob_ = new_blob();  // under a second root key
  EXPECT_EQ(kora_km_make_root_key(1), km::kErrToken);
  EXPECT_THAT(kora_km_last_error(), HasSubstr("removing the old root key"));
  setenv("KORA_P11_FAULT", "C_Encrypt", 1);  // after the data key is unwrapped
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(3), kSeal), km::kErrToken);
  EXPECT_STREQ(kora_km_last_error(), "the token sealed 3 bytes into 18");
  setenv("KORA_P11_FAULT", "C_Logout C_CloseSession C_Finalize", 1);
  km::forget_keys();
  EXPECT_EQ(look_into_token().back(), 3u) << "two root keys and the data key the token kept; no other";
  setenv("KORA_P11_FAULT", "C_GetMechanismInfo", 1);
  km::forget_keys();
  EXPECT_EQ(crypt(blob_, nonce_, Bytes(3), kSeal), km::kErrToken);
  EXPECT_STREQ(kora_km_last_error(), "token kora cannot do CKM_AES_KEY_GEN with 256-bit AES keys");
  setenv("KORA_P11_FAULT", "C_GenerateKey", 1);
  EXPECT_EQ(kora_km_make_root_key(1), km::kErrToken);
  EXPECT_THAT(kora_km_last_error(), HasSubstr("making the root key"));
}

// What a user gets wrong in the URI or the token, each said plainly; a PIN from a file works.
TEST_P(HostKmCase, TokenUriSaysWhatIsWrong) {
  ASSERT_TRUE(kora::test::spill("/data/hsm/pin", std::string(kora::test::kTokenPin) + "\n"));
  const Bytes sealed = seal(Bytes(5));
  setenv("KORA_KM_PKCS11_URI", GetParam().setup.c_str(), 1);  // in the same process: another token
  // A second call fails the same way (and a refused PIN is not tried on the token again).
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(crypt(blob_, nonce_, sealed, kUnseal), GetParam().rc);
    EXPECT_THAT(kora_km_last_error(), HasSubstr(GetParam().says));
  }
}
INSTANTIATE_TEST_SUITE_P(
    Uris, HostKmCase,
    testing::Values(
        Case{"pin_file", kora::test::token_uri("pin-source=file:/data/hsm/pin"), "", "", 0},
        Case{"wrong_pin", kora::test::token_uri("pin-value=9999"), "", "wrong PIN", km::kErrToken},
        Case{"missing_token",
             "pkcs11:token=nope;object=kora-root?module-path=" KORA_SOFTHSM2_MODULE "&pin-value=1234", "",
             "no token in " KORA_SOFTHSM2_MODULE " matches", km::kErrToken},
        Case{"missing_key", kora::test::token_uri("pin-value=1234", "other"), "",
             "the token has no root key "},
        Case{"other_id", kora::test::token_uri("pin-value=1234", "kora-root;id=%01"), "",
             "while a key blob exists: a new one would orphan every credential sealed under the old one "
             "(kora-ssl-store init --force-new-key starts over)"},
        Case{"no_module", "pkcs11:token=kora;object=kora-root?module-path=/nonexistent.so", "", "cannot load",
             km::kErrToken}),
    testing::PrintToStringParamName());
#endif

}  // namespace
