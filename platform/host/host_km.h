// Host key-management service: result codes, formats and the backends' entry points, shared
// by its source files and its tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kora::km {

// Results of the service calls (the C interface promises only 0 / non-zero).
enum Result : int {
  kOk = 0,
  kErrCrypto = -1,    // an OpenSSL call failed
  kErrArgs = -2,      // null pointer, bad direction, length out of range
  kErrNoMemory = -3,  // allocation failed, or memory for a key could not be locked
  kErrRootKey = -4,   // root key missing, refused by a check, unreadable, or cannot be created
  kErrKeyBlob = -5,   // key blob of the wrong size or not wrapped under this root key
  kErrFormat = -6,    // sealed input of another backend's or an unknown version, or too short
  kErrAuth = -7,      // tag mismatch: wrong key, wrong nonce, or altered bytes
  kErrToken = -8,     // the PKCS#11 module, token, login or a mechanism is not usable
};

inline constexpr size_t kRootKeyLen = 32;
inline constexpr size_t kDataKeyLen = 32;
// RFC 5649 wrap of a 32-byte key: 8 bytes of integrity block plus the key.
inline constexpr size_t kKeyBlobLen = kDataKeyLen + 8;
inline constexpr size_t kNonceLen = 12;
inline constexpr size_t kIvLen = 12;
inline constexpr size_t kTagLen = 16;
// The first byte of a seal names the backend that made it.
inline constexpr uint8_t kSealVersionFile = 1;
inline constexpr uint8_t kSealVersionToken = 2;
// version byte + IV + tag
inline constexpr size_t kSealOverhead = 1 + kIvLen + kTagLen;
inline constexpr size_t kAadLen = 1 + kNonceLen;

// Path of the root key file: $KORA_KM_ROOT_KEY when set and non-empty, else the built-in
// default.
const char* root_key_path();
// The token URI when the PKCS#11 backend is selected, else null.
const char* pkcs11_uri();

// Records why the current call fails (printf-style), for kora_km_last_error(); returns `r`.
Result fail(Result r, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void clear_error();

// The associated data of every seal: the version byte and the caller's nonce.
void seal_aad(uint8_t version, const uint8_t* nonce, uint8_t aad[kAadLen]);

// Wipes every cached key of this process (both backends); the next call reads the root
// key and unwraps again.
void forget_keys();

// Memory for cached keys (host_km_locked.cpp): locked, out of core dumps, wiped when freed.
void* locked_alloc(size_t size);
void locked_free(void* p, size_t size);
// Registers forget_keys() to run at exit, once per process.
void wipe_keys_at_exit();

// File backend (host_km_file.cpp; root key file in host_km_rootfile.cpp).
namespace file {
Result generate_keyblob(uint8_t** keyblob, size_t* keyblob_len);
Result crypt(const uint8_t* keyblob, const uint8_t* nonce, const uint8_t* in, size_t in_len, void** out,
             size_t* out_len, bool seal);
void forget();
// Reads the root key after checking the file; creates it first when missing and `create`.
Result load_root_key(uint8_t key[kRootKeyLen], bool create);
// 1 present and usable, 0 missing, or an error.
int root_key_state();
Result make_root_key(bool replace);
}  // namespace file

// PKCS#11 backend (host_km_pkcs11.cpp).
namespace token {
Result generate_keyblob(uint8_t** keyblob, size_t* keyblob_len);
Result crypt(const uint8_t* keyblob, const uint8_t* nonce, const uint8_t* in, size_t in_len, void** out,
             size_t* out_len, bool seal);
void forget();
int root_key_state();
Result make_root_key(bool replace);
// The URI as it may be shown: without a pin-value.
std::string describe(const char* uri_text);
}  // namespace token

}  // namespace kora::km
