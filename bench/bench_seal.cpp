// Sealing and unsealing through the key service as the store calls it (the file backend,
// with the store's key blob), and through its PKCS#11 backend on a private SoftHSM2 token,
// next to one raw AES-256-GCM pass over the same bytes with a key already in memory.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "ossl_ptr.h"
#include "ssl_KM_crypto_services.h"
#include "ssl_store_internal.h"
#ifdef KORA_SOFTHSM2_MODULE
#include "softhsm_token.h"
#endif

namespace kora::bench {
namespace {

constexpr size_t kTagLength = 16;

std::vector<uint8_t> random_bytes(size_t n) {
  std::vector<uint8_t> v(n);
  RAND_bytes(v.data(), static_cast<int>(n));
  return v;
}

int key_service(const void* in, size_t in_len, void** out, size_t* out_len, int direction) {
  return ssl_KM_TA_crypto_services_encrypt_decrypt_data(gp_tz_keyblob, g_keyblob_len, gp_ta_nonceBuf, in,
                                                        in_len, out, out_len, direction);
}

void BM_SealStore(benchmark::State& state, size_t size) {
  prepare_store();
  const std::vector<uint8_t> plain = random_bytes(size);
  for (auto _ : state) {
    void* sealed = nullptr;
    size_t sealed_len = 0;
    if (key_service(plain.data(), plain.size(), &sealed, &sealed_len, SSL_KM_DIRECTION_SEAL) != 0) {
      state.SkipWithError("seal failed");
      break;
    }
    std::free(sealed);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void BM_UnsealStore(benchmark::State& state, size_t size) {
  prepare_store();
  const std::vector<uint8_t> plain = random_bytes(size);
  void* sealed = nullptr;
  size_t sealed_len = 0;
  if (key_service(plain.data(), plain.size(), &sealed, &sealed_len, SSL_KM_DIRECTION_SEAL) != 0) {
    state.SkipWithError("seal failed");
    return;
  }
  for (auto _ : state) {
    void* out = nullptr;
    size_t out_len = 0;
    if (key_service(sealed, sealed_len, &out, &out_len, SSL_KM_DIRECTION_UNSEAL) != 0) {
      state.SkipWithError("unseal failed");
      break;
    }
    std::free(out);
  }
  std::free(sealed);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

#ifdef KORA_SOFTHSM2_MODULE
// A key blob of the token backend, made once on a token of this process (empty when that
// fails); the backend is selected only while a token benchmark runs.
const std::vector<uint8_t>& token_blob() {
  static const std::vector<uint8_t> blob = [] {
    std::vector<uint8_t> b;
    uint8_t* p = nullptr;
    size_t len = 0;
    if (test::make_softhsm_token("/data/bench-hsm").empty()) {
      ::setenv("KORA_KM_PKCS11_URI", test::token_uri().c_str(), 1);
      if (ssl_KM_TA_crypto_services_generate_keyblob(&p, &len) == 0) {
        b.assign(p, p + len);
        std::free(p);
      }
      ::unsetenv("KORA_KM_PKCS11_URI");
    }
    return b;
  }();
  return blob;
}

void BM_Token(benchmark::State& state, size_t size, bool seal) {
  prepare_store();
  const std::vector<uint8_t>& blob = token_blob();
  ::setenv("KORA_KM_PKCS11_URI", test::token_uri().c_str(), 1);
  const std::vector<uint8_t> plain = random_bytes(size);
  void* sealed = nullptr;
  size_t sealed_len = 0;
  const auto call = [&](const void* in, size_t len, void** out, size_t* out_len, int direction) {
    return ssl_KM_TA_crypto_services_encrypt_decrypt_data(blob.data(), blob.size(), gp_ta_nonceBuf, in, len,
                                                          out, out_len, direction);
  };
  if (blob.empty() || call(plain.data(), size, &sealed, &sealed_len, SSL_KM_DIRECTION_SEAL) != 0) {
    state.SkipWithError("no SoftHSM2 token, or its first seal failed");
  }
  for (auto _ : state) {
    void* out = nullptr;
    size_t out_len = 0;
    const int rc = seal ? call(plain.data(), size, &out, &out_len, SSL_KM_DIRECTION_SEAL)
                        : call(sealed, sealed_len, &out, &out_len, SSL_KM_DIRECTION_UNSEAL);
    if (rc != 0) {
      state.SkipWithError("token call failed");
      break;
    }
    std::free(out);
  }
  std::free(sealed);
  ::unsetenv("KORA_KM_PKCS11_URI");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}
#endif

// One AES-256-GCM pass: a fresh cipher context, key and 12-byte IV set, the data, the tag.
bool gcm_pass(bool encrypt, const uint8_t* key, const uint8_t* iv, const uint8_t* in, size_t len,
              uint8_t* out, uint8_t* tag) {
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int n = 0;
  if (!ctx || EVP_CipherInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key, iv, encrypt ? 1 : 0) != 1 ||
      EVP_CipherUpdate(ctx.get(), out, &n, in, static_cast<int>(len)) != 1) {
    return false;
  }
  if (!encrypt && EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTagLength, tag) != 1) {
    return false;
  }
  int fin = 0;
  if (EVP_CipherFinal_ex(ctx.get(), out + n, &fin) != 1) {
    return false;
  }
  return !encrypt || EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTagLength, tag) == 1;
}

void BM_GcmBaseline(benchmark::State& state, size_t size, bool encrypt) {
  const std::vector<uint8_t> key = random_bytes(32);
  const std::vector<uint8_t> iv = random_bytes(12);
  const std::vector<uint8_t> plain = random_bytes(size);
  std::vector<uint8_t> sealed(size);
  std::vector<uint8_t> out(size);
  uint8_t tag[kTagLength];
  if (!gcm_pass(true, key.data(), iv.data(), plain.data(), size, sealed.data(), tag)) {
    state.SkipWithError("AES-256-GCM failed");
    return;
  }
  const uint8_t* in = encrypt ? plain.data() : sealed.data();
  for (auto _ : state) {
    if (!gcm_pass(encrypt, key.data(), iv.data(), in, size, out.data(), tag)) {
      state.SkipWithError("AES-256-GCM failed");
      break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

const bool kRegistered = [] {
  for (size_t size : {size_t{2048}, size_t{65536}}) {
    const std::string kib = std::to_string(size / 1024) + "KiB";
    benchmark::RegisterBenchmark(("p5_seal/" + kib + "/store").c_str(), BM_SealStore, size)->UseRealTime();
    benchmark::RegisterBenchmark(("p5_seal/" + kib + "/baseline").c_str(), BM_GcmBaseline, size, true)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("p5_unseal/" + kib + "/store").c_str(), BM_UnsealStore, size)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("p5_unseal/" + kib + "/baseline").c_str(), BM_GcmBaseline, size, false)
        ->UseRealTime();
#ifdef KORA_SOFTHSM2_MODULE
    benchmark::RegisterBenchmark(("p5_seal/" + kib + "/token").c_str(), BM_Token, size, true)->UseRealTime();
    benchmark::RegisterBenchmark(("p5_unseal/" + kib + "/token").c_str(), BM_Token, size, false)
        ->UseRealTime();
#endif
  }
  return true;
}();

}  // namespace
}  // namespace kora::bench
