#include "fake_km.h"

#include <cstdlib>
#include <cstring>

#include "ssl_KM_crypto_services.h"

namespace kora::fake_km {
namespace {

constexpr uint8_t kMarker[kSealOverhead] = {'F', 'K', 'S', 'L'};

struct State {
  Generate generate = Generate::kOk;
  Crypt seal = Crypt::kOk;
  Crypt unseal = Crypt::kOk;
  int generate_calls = 0;
  std::vector<CryptCall> calls;
};

State& state() {
  static State s;
  return s;
}

// Applies a failure mode; true when the call is to end there with `rc`.
bool inject(Crypt mode, void** out, size_t* out_len, int* rc) {
  switch (mode) {
    case Crypt::kOk:
      return false;
    case Crypt::kFail:
      *rc = -1;
      return true;
    case Crypt::kFailWithOutput:
      *out = std::malloc(8);
      *out_len = 8;
      *rc = -1;
      return true;
    case Crypt::kNoOutput:
      *out = nullptr;
      *out_len = 0;
      *rc = 0;
      return true;
    case Crypt::kEmptyOutput:
      *out = std::malloc(1);
      *out_len = 0;
      *rc = 0;
      return true;
  }
  return false;
}

}  // namespace

void reset() { state() = State{}; }
void set_generate(Generate mode) { state().generate = mode; }
void set_seal(Crypt mode) { state().seal = mode; }
void set_unseal(Crypt mode) { state().unseal = mode; }
int generate_calls() { return state().generate_calls; }
const std::vector<CryptCall>& crypt_calls() { return state().calls; }

}  // namespace kora::fake_km

using namespace kora::fake_km;

extern "C" int ssl_KM_TA_crypto_services_generate_keyblob(uint8_t** keyblob, size_t* keyblob_len) {
  ++state().generate_calls;
  switch (state().generate) {
    case Generate::kFail:
      return -1;
    case Generate::kNullBlob:
      *keyblob = nullptr;
      *keyblob_len = kBlobLength;
      return 0;
    case Generate::kEmptyBlob:
      *keyblob = static_cast<uint8_t*>(std::malloc(1));
      *keyblob_len = 0;
      return 0;
    case Generate::kOk:
      break;
  }
  auto* blob = static_cast<uint8_t*>(std::malloc(kBlobLength));
  for (size_t i = 0; i < kBlobLength; ++i) {
    blob[i] = static_cast<uint8_t>(0xA0 + i);
  }
  *keyblob = blob;
  *keyblob_len = kBlobLength;
  return 0;
}

extern "C" int ssl_KM_TA_crypto_services_encrypt_decrypt_data(const uint8_t* keyblob, size_t keyblob_len,
                                                              const uint8_t* nonce, const void* in,
                                                              size_t in_len, void** out, size_t* out_len,
                                                              int direction) {
  const auto* bytes = static_cast<const uint8_t*>(in);
  state().calls.push_back(CryptCall{keyblob, keyblob_len, nonce, in, in_len, out, out_len, direction,
                                    std::vector<uint8_t>(bytes, bytes + in_len)});
  int rc = 0;
  if (inject(direction == SSL_KM_DIRECTION_SEAL ? state().seal : state().unseal, out, out_len, &rc)) {
    return rc;
  }
  if (direction == SSL_KM_DIRECTION_SEAL) {
    auto* sealed = static_cast<uint8_t*>(std::malloc(in_len + kSealOverhead));
    std::memcpy(sealed, kMarker, kSealOverhead);
    std::memcpy(sealed + kSealOverhead, bytes, in_len);
    *out = sealed;
    *out_len = in_len + kSealOverhead;
    return 0;
  }
  if (in_len <= kSealOverhead || std::memcmp(bytes, kMarker, kSealOverhead) != 0) {
    return -1;
  }
  void* plain = std::malloc(in_len - kSealOverhead);
  std::memcpy(plain, bytes + kSealOverhead, in_len - kSealOverhead);
  *out = plain;
  *out_len = in_len - kSealOverhead;
  return 0;
}
