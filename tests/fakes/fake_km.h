// Substitute key service for failure injection: compiled into a test program, its C symbols
// take the place of the host key service. Sealing puts the marker "FKSL" in front of the
// bytes, not cryptography; unsealing refuses input without it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kora::fake_km {

enum class Generate {
  kOk,         // a 32-byte blob (bytes 0xA0, 0xA1, ...)
  kFail,       // returns -1 and leaves both outputs untouched
  kNullBlob,   // returns 0 with a null blob and length 32
  kEmptyBlob,  // returns 0 with a non-null blob of length 0
};

enum class Crypt {
  kOk,
  kFail,            // returns -1, outputs untouched
  kFailWithOutput,  // returns -1 but leaves a heap buffer in *out (the caller must free it)
  kNoOutput,        // returns 0 with *out null and *out_len 0
  kEmptyOutput,     // returns 0 with a heap buffer in *out and *out_len 0
};

struct CryptCall {
  const uint8_t* keyblob;
  size_t keyblob_len;
  const uint8_t* nonce;
  const void* in;
  size_t in_len;
  void** out;
  size_t* out_len;
  int direction;
};

inline constexpr size_t kBlobLength = 32;

extern Generate generate;
extern Crypt seal;
extern Crypt unseal;
extern int generate_calls;
extern std::vector<CryptCall> crypt_calls;

}  // namespace kora::fake_km
