#include "fake_km.h"

#include <cstdlib>
#include <cstring>

#include "ssl_KM_crypto_services.h"

namespace kora::fake_km {
Generate generate = Generate::kOk;
Crypt seal = Crypt::kOk;
Crypt unseal = Crypt::kOk;
int generate_calls = 0;
std::vector<CryptCall> crypt_calls;
}  // namespace kora::fake_km

using namespace kora::fake_km;

namespace {

constexpr uint8_t kMarker[4] = {'F', 'K', 'S', 'L'};

uint8_t* copy_out(const uint8_t* head, size_t head_len, const uint8_t* bytes, size_t len) {
  auto* out = static_cast<uint8_t*>(std::malloc(head_len + len + 1));
  if (head_len > 0) {
    std::memcpy(out, head, head_len);
  }
  if (len > 0) {
    std::memcpy(out + head_len, bytes, len);
  }
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
  *keyblob = generate == Generate::kNullBlob ? nullptr : copy_out(blob, kBlobLength, nullptr, 0);
  *keyblob_len = generate == Generate::kEmptyBlob ? 0 : kBlobLength;
  return 0;
}

extern "C" int ssl_KM_TA_crypto_services_encrypt_decrypt_data(const uint8_t* keyblob, size_t keyblob_len,
                                                              const uint8_t* nonce, const void* in,
                                                              size_t in_len, void** out, size_t* out_len,
                                                              int direction) {
  crypt_calls.push_back({keyblob, keyblob_len, nonce, in, in_len, out, out_len, direction});
  const bool sealing = direction == SSL_KM_DIRECTION_SEAL;
  const auto* bytes = static_cast<const uint8_t*>(in);
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
    case Crypt::kEmptyOutput:
      *out = (sealing ? seal : unseal) == Crypt::kNoOutput ? nullptr : std::malloc(1);
      *out_len = 0;
      return 0;
  }
  if (sealing) {
    *out = copy_out(kMarker, sizeof kMarker, bytes, in_len);
    *out_len = in_len + sizeof kMarker;
    return 0;
  }
  if (in_len <= sizeof kMarker || std::memcmp(bytes, kMarker, sizeof kMarker) != 0) {
    return -1;
  }
  *out = copy_out(nullptr, 0, bytes + sizeof kMarker, in_len - sizeof kMarker);
  *out_len = in_len - sizeof kMarker;
  return 0;
}
