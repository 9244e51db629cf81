// Host key-management service: result codes and formats shared with its tests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kora::km {

// Results of the service calls (the C interface promises only 0 / non-zero).
enum Result : int {
  kOk = 0,
  kErrCrypto = -1,    // an OpenSSL call failed
  kErrArgs = -2,      // null pointer, bad direction, length out of range
  kErrNoMemory = -3,  // allocation failed
  kErrRootKey = -4,   // root key missing, unreadable, not 32 bytes, or cannot be created
  kErrKeyBlob = -5,   // key blob of the wrong size or not wrapped under this root key
  kErrFormat = -6,    // sealed input of an unknown version or too short
  kErrAuth = -7,      // tag mismatch: wrong key, wrong nonce, or altered bytes
};

inline constexpr size_t kRootKeyLen = 32;
inline constexpr size_t kDataKeyLen = 32;
// RFC 5649 wrap of a 32-byte key: 8 bytes of integrity block plus the key.
inline constexpr size_t kKeyBlobLen = kDataKeyLen + 8;
inline constexpr size_t kNonceLen = 12;
inline constexpr size_t kIvLen = 12;
inline constexpr size_t kTagLen = 16;
inline constexpr uint8_t kSealVersion = 1;
// version byte + IV + tag
inline constexpr size_t kSealOverhead = 1 + kIvLen + kTagLen;

// Path of the root key file: $KORA_KM_ROOT_KEY when set and non-empty, else the built-in
// default.
const char* root_key_path();

}  // namespace kora::km
