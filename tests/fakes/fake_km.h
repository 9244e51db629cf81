// Substitute key service for failure injection: compiled into a test program, its C symbols
// take the place of the host key service. Sealing is a reversible marker transform, not
// cryptography; it only has to round-trip and to notice foreign input.
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

// Every argument of one encrypt/decrypt call, with a copy of the input bytes.
struct CryptCall {
  const uint8_t* keyblob;
  size_t keyblob_len;
  const uint8_t* nonce;
  const void* in;
  size_t in_len;
  void** out;
  size_t* out_len;
  int direction;
  std::vector<uint8_t> input;
};

inline constexpr size_t kBlobLength = 32;
inline constexpr size_t kSealOverhead = 4;  // the marker put in front of sealed bytes

void reset();
void set_generate(Generate mode);
void set_seal(Crypt mode);
void set_unseal(Crypt mode);

int generate_calls();
const std::vector<CryptCall>& crypt_calls();

}  // namespace kora::fake_km
