#include <cstdlib>
#include <cstring>

#include "fakes.h"
#include "ssl_KM_crypto_services.h"

namespace kora::fake {
Generate generate = Generate::kOk;
Crypt seal = Crypt::kOk, unseal = Crypt::kOk;
int generate_calls = 0;
}  // namespace kora::fake

using namespace kora::fake;

extern "C" int ssl_KM_TA_crypto_services_generate_keyblob(uint8_t** keyblob, size_t* keyblob_len) {
  ++generate_calls;
  if (generate == Generate::kFail) {
    return -1;
  }
  *keyblob = generate == Generate::kNullBlob ? nullptr : static_cast<uint8_t*>(std::malloc(kBlobLength));
  if (*keyblob != nullptr) {
    std::memset(*keyblob, 0xA0, kBlobLength);
  }
  *keyblob_len = kBlobLength;
  return 0;
}

extern "C" int ssl_KM_TA_crypto_services_encrypt_decrypt_data(const uint8_t*, size_t, const uint8_t*,
                                                              const void* in, size_t in_len, void** out,
                                                              size_t* out_len, int direction) {
  const bool sealing = direction == SSL_KM_DIRECTION_SEAL;
  const Crypt mode = sealing ? seal : unseal;
  const auto* bytes = static_cast<const char*>(in);
  if (mode == Crypt::kFail || (!sealing && (in_len <= 4 || std::memcmp(bytes, "FKSL", 4) != 0))) {
    return -1;
  }
  *out_len = mode == Crypt::kNoOutput ? 0 : sealing ? in_len + 4 : in_len - 4;
  *out = mode == Crypt::kNoOutput ? nullptr : std::malloc(*out_len + 1);
  if (*out != nullptr && sealing) {
    std::memcpy(*out, "FKSL", 4);
    std::memcpy(static_cast<char*>(*out) + 4, bytes, in_len);
  } else if (*out != nullptr) {
    std::memcpy(*out, bytes + 4, *out_len);
  }
  return 0;
}
