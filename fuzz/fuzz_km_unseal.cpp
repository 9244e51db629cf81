// Fuzz target for the host key service's unseal. A fixed root key, key blob and nonce are
// set up once; every input is unsealed, and the result must agree with an AES-256-GCM
// decryption by OpenSSL under the same data key (version byte 1, IV, ciphertext, tag, the
// version and nonce as associated data): the service accepts exactly the genuine seals and
// then returns their plain bytes. Each input is also sealed, and must unseal to itself,
// while the same seal with one byte (chosen by the input) altered is refused.
//
// KORA_FUZZ_WRITE_SEEDS=DIR writes a few genuine seals under the fixed key there.
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ossl_ptr.h"
#include "ssl_KM_crypto_services.h"

namespace {

using Bytes = std::vector<uint8_t>;
const Bytes kRootKey(32, 0x5a);
const Bytes kDataKey(32, 0xc3);
const Bytes kNonce(12, 0x07);
Bytes g_blob;
char g_dir[] = "/tmp/kora-fuzz-km-XXXXXX";

void remove_root_key() {
  (void)::unlink((std::string(g_dir) + "/root.key").c_str());
  (void)::rmdir(g_dir);
}

[[noreturn]] void broken(const char* what) {
  std::fprintf(stderr, "invariant broken: %s\n", what);
  std::abort();
}

// The data key wrapped under the root key (RFC 5649), as the service's key blob.
Bytes wrap_data_key() {
  kora::EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  Bytes out(kDataKey.size() + 16);
  int n = 0, fin = 0;
  EVP_CIPHER_CTX_set_flags(ctx.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
  if (EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_wrap_pad(), nullptr, kRootKey.data(), nullptr) != 1 ||
      EVP_EncryptUpdate(ctx.get(), out.data(), &n, kDataKey.data(), static_cast<int>(kDataKey.size())) != 1 ||
      EVP_EncryptFinal_ex(ctx.get(), out.data() + n, &fin) != 1) {
    broken("key wrap");
  }
  out.resize(static_cast<size_t>(n + fin));
  return out;
}

// OpenSSL's own verdict on `in` as a seal: true with the plain bytes, or false.
bool reference_open(const uint8_t* in, size_t len, Bytes* plain) {
  if (len < 29 || in[0] != 1) {
    return false;
  }
  const size_t n = len - 29;
  uint8_t aad[13];
  aad[0] = 1;
  std::memcpy(aad + 1, kNonce.data(), 12);
  Bytes tag(in + 13 + n, in + len);
  plain->assign(n + 1, 0);
  kora::EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  int out = 0;
  return EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, kDataKey.data(), in + 1) == 1 &&
         EVP_DecryptUpdate(ctx.get(), nullptr, &out, aad, sizeof aad) == 1 &&
         EVP_DecryptUpdate(ctx.get(), plain->data(), &out, in + 13, static_cast<int>(n)) == 1 &&
         EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, 16, tag.data()) == 1 &&
         EVP_DecryptFinal_ex(ctx.get(), plain->data() + n, &out) == 1 && (plain->resize(n), true);
}

int call(const uint8_t* in, size_t len, Bytes* out, int direction) {
  void* p = nullptr;
  size_t n = 0;
  const int rc = ssl_KM_TA_crypto_services_encrypt_decrypt_data(g_blob.data(), g_blob.size(), kNonce.data(),
                                                                in, len, &p, &n, direction);
  if (rc == 0) {
    out->assign(static_cast<uint8_t*>(p), static_cast<uint8_t*>(p) + n);
    OPENSSL_clear_free(p, n);
  } else if (p != nullptr) {
    broken("output on failure");
  }
  return rc;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (::mkdtemp(g_dir) == nullptr) {
    broken("mkdtemp");
  }
  (void)std::atexit(remove_root_key);
  const std::string key = std::string(g_dir) + "/root.key";
  std::FILE* f = std::fopen(key.c_str(), "wb");
  if (f == nullptr || ::chmod(key.c_str(), 0600) != 0 || std::fwrite(kRootKey.data(), 1, 32, f) != 32 ||
      std::fclose(f) != 0) {
    broken("root key file");
  }
  ::setenv("KORA_KM_ROOT_KEY", key.c_str(), 1);
  ::unsetenv("KORA_KM_PKCS11_URI");
  g_blob = wrap_data_key();
  if (const char* seeds = std::getenv("KORA_FUZZ_WRITE_SEEDS")) {
    for (const std::string& plain : {std::string(), std::string("a"),
                                     std::string("-----BEGIN CERTIFICATE-----\n"), std::string(300, 'k')}) {
      Bytes sealed;
      if (call(reinterpret_cast<const uint8_t*>(plain.data()), plain.size(), &sealed,
               SSL_KM_DIRECTION_SEAL) != 0) {
        broken("seed seal");
      }
      const std::string path = std::string(seeds) + "/seal_" + std::to_string(plain.size());
      std::FILE* out = std::fopen(path.c_str(), "wb");
      if (out == nullptr || std::fwrite(sealed.data(), 1, sealed.size(), out) != sealed.size() ||
          std::fclose(out) != 0) {
        broken("seed file");
      }
    }
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes got, want;
  const bool genuine = reference_open(data, size, &want);
  const int rc = call(data, size, &got, SSL_KM_DIRECTION_UNSEAL);
  if ((rc == 0) != genuine) {
    broken(genuine ? "a genuine seal refused" : "something other than a genuine seal accepted");
  }
  if (rc == 0 && got != want) {
    broken("unsealed bytes differ from the plain bytes");
  }
  Bytes sealed, back;
  if (call(data, size, &sealed, SSL_KM_DIRECTION_SEAL) != 0 ||
      call(sealed.data(), sealed.size(), &back, SSL_KM_DIRECTION_UNSEAL) != 0 ||
      back != Bytes(data, data + size)) {
    broken("seal does not round-trip");
  }
  const size_t at = size > 0 ? data[0] % sealed.size() : 0;
  sealed[at] ^= static_cast<uint8_t>(size > 1 ? (data[1] | 1) : 1);
  if (call(sealed.data(), sealed.size(), &back, SSL_KM_DIRECTION_UNSEAL) == 0) {
    broken("an altered seal accepted");
  }
  return 0;
}
