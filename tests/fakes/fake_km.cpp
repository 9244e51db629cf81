#include <cstdlib>
#include <cstring>

#include "fakes.h"
#include "ssl_KM_crypto_services.h"

namespace kora::fake {
Generate generate = Generate::kOk;
Crypt seal = Crypt::kOk, unseal = Crypt::kOk;
int generate_calls = 0, crypt_calls = 0;
}  // namespace kora::fake

using namespace kora::fake;

namespace {

constexpr char kMarker[] = "FKSL";
constexpr size_t kMarkerLength = 4;

void* copy_out(const void* head, size_t head_len, const void* bytes, size_t len) {
  auto* out = static_cast<char*>(std::malloc(head_len + len + 1));
  std::memcpy(out, head, head_len);
  std::memcpy(out + head_len, bytes, len);
  return out;
}

}  // namespace

extern "C" int ssl_KM_TA_crypto_services_generate_keyblob(uint8_t** keyblob, size_t* keyblob_len) {
  ++generate_calls;
  if (generate == Generate::kFail) {
    return -1;
  }
  uint8_t blob[kBlobLength];
  for (size_t i = 0; i < kBlobLength; ++i) {
    blob[i] = static_cast<uint8_t>(0xA0 + i);
  }
  *keyblob =
      generate == Generate::kNullBlob ? nullptr : static_cast<uint8_t*>(copy_out(blob, kBlobLength, "", 0));
  *keyblob_len = kBlobLength;
  return 0;
}

extern "C" int ssl_KM_TA_crypto_services_encrypt_decrypt_data(const uint8_t*, size_t, const uint8_t*,
                                                              const void* in, size_t in_len, void** out,
                                                              size_t* out_len, int direction) {
  ++crypt_calls;
  const bool sealing = direction == SSL_KM_DIRECTION_SEAL;
  switch (sealing ? seal : unseal) {
    case Crypt::kOk:
      break;
    case Crypt::kFail:
      return -1;
    case Crypt::kFailWithOutput:
      *out = std::malloc(8);
      *out_len = 8;
      return -1;
    case Crypt::kNoOutput:
      *out = nullptr;
      *out_len = 0;
      return 0;
  }
  const auto* bytes = static_cast<const char*>(in);
  if (sealing) {
    *out = copy_out(kMarker, kMarkerLength, bytes, in_len);
    *out_len = in_len + kMarkerLength;
    return 0;
  }
  if (in_len <= kMarkerLength || std::memcmp(bytes, kMarker, kMarkerLength) != 0) {
    return -1;
  }
  *out = copy_out("", 0, bytes + kMarkerLength, in_len - kMarkerLength);
  *out_len = in_len - kMarkerLength;
  return 0;
}
