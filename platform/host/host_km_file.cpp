// File backend of the host key service: key blobs wrapped under the root key file, and
// AES-256-GCM sealing in this process. The root key is read and the data key unwrapped once
// per process and key blob; the data key then stays in a locked page, out of core dumps,
// until another key blob is presented or the process exits. Each call keys its own cipher
// context from that page, so no key schedule outlives the call.
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "host_km.h"
#include "ossl_ptr.h"
#include "secure_bytes.h"

namespace kora::km::file {
namespace {

struct KeyCache {
  uint8_t blob[kKeyBlobLen];
  uint8_t key[kDataKeyLen];
  bool valid;
};

// IVs are drawn from a pool of random bytes refilled in one RAND_bytes call: a call for 12
// bytes costs about as much as sealing 2 KiB. Each IV is handed out once; a forked child
// starts with an empty pool so that it never repeats its parent's IVs.
struct IvPool {
  uint8_t bytes[kIvLen * 340];
  size_t used = sizeof bytes;
};

std::mutex g_mutex;
KeyCache* g_cache = nullptr;  // guarded by g_mutex; a locked page
IvPool g_ivs;                 // guarded by g_mutex

void empty_pool_in_child() { g_ivs.used = sizeof g_ivs.bytes; }

bool next_iv(uint8_t* iv) {
  static const bool registered = ::pthread_atfork(nullptr, nullptr, empty_pool_in_child) == 0;
  if (!registered) {
    return RAND_bytes(iv, static_cast<int>(kIvLen)) == 1;
  }
  if (g_ivs.used + kIvLen > sizeof g_ivs.bytes) {
    if (RAND_bytes(g_ivs.bytes, static_cast<int>(sizeof g_ivs.bytes)) != 1) {
      return false;
    }
    g_ivs.used = 0;
  }
  std::memcpy(iv, g_ivs.bytes + g_ivs.used, kIvLen);
  g_ivs.used += kIvLen;
  return true;
}

// Fetched once: an implicit fetch on every call would cost more than sealing 2 KiB.
const EVP_CIPHER* gcm() {
  static EVP_CIPHER* const cipher = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
  return cipher;
}

// AES key wrap with padding under the root key: encrypt = wrap, else unwrap. `out` has room
// for in_len + 8 bytes; *out_len receives the result's length.
Result key_wrap(const uint8_t* root, const uint8_t* in, size_t in_len, uint8_t* out, size_t* out_len,
                bool encrypt) {
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx) {
    return fail(kErrNoMemory, "no memory for a cipher context");
  }
  EVP_CIPHER_CTX_set_flags(ctx.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
  int n = 0;
  int fin = 0;
  if (EVP_CipherInit_ex(ctx.get(), EVP_aes_256_wrap_pad(), nullptr, root, nullptr, encrypt ? 1 : 0) != 1) {
    return fail(kErrCrypto, "AES key wrap unavailable");
  }
  if (EVP_CipherUpdate(ctx.get(), out, &n, in, static_cast<int>(in_len)) != 1 || n < 0 ||
      EVP_CipherFinal_ex(ctx.get(), out + n, &fin) != 1 || fin < 0) {
    // On unwrap this is the integrity check failing: not our root key, or a damaged blob.
    return encrypt ? fail(kErrCrypto, "wrapping the data key failed")
                   : fail(kErrKeyBlob, "the key blob does not unwrap under the root key %s", root_key_path());
  }
  *out_len = static_cast<size_t>(n) + static_cast<size_t>(fin);
  return kOk;
}

// Makes g_cache hold the data key of `keyblob`. Caller holds g_mutex.
Result ensure_key(const uint8_t* keyblob) {
  if (g_cache == nullptr) {
    g_cache = static_cast<KeyCache*>(locked_alloc(sizeof(KeyCache)));
    if (g_cache == nullptr) {
      return kErrNoMemory;
    }
    wipe_keys_at_exit();
  }
  if (g_cache->valid && CRYPTO_memcmp(g_cache->blob, keyblob, kKeyBlobLen) == 0) {
    return kOk;
  }
  OPENSSL_cleanse(g_cache, sizeof(KeyCache));
  // Root key and unwrap buffer live in the locked page too, past the cache.
  struct Scratch {
    uint8_t root[kRootKeyLen];
    uint8_t plain[kKeyBlobLen + 8];
  };
  static_assert(sizeof(KeyCache) + sizeof(Scratch) < 4096, "one page");
  auto* scratch = reinterpret_cast<Scratch*>(reinterpret_cast<uint8_t*>(g_cache) + sizeof(KeyCache));
  Result r = load_root_key(scratch->root, false);
  size_t plain_len = 0;
  if (r == kOk) {
    r = key_wrap(scratch->root, keyblob, kKeyBlobLen, scratch->plain, &plain_len, false);
  }
  if (r == kOk && plain_len != kDataKeyLen) {
    r = fail(kErrKeyBlob, "the key blob holds a %zu-byte key, not %zu", plain_len, kDataKeyLen);
  }
  if (r == kOk) {
    std::memcpy(g_cache->key, scratch->plain, kDataKeyLen);
    std::memcpy(g_cache->blob, keyblob, kKeyBlobLen);
    g_cache->valid = true;
  }
  OPENSSL_cleanse(scratch, sizeof(Scratch));
  return r;
}

// Sets ctx up for AES-256-GCM under the data key of `keyblob` and `iv` (a fresh one written
// there when sealing), and binds the associated data.
Result start_gcm(EVP_CIPHER_CTX* ctx, const uint8_t* keyblob, uint8_t* iv, const uint8_t* nonce,
                 bool encrypt) {
  {
    const std::lock_guard<std::mutex> lock(g_mutex);
    const Result r = ensure_key(keyblob);
    if (r != kOk) {
      return r;
    }
    if (encrypt && !next_iv(iv)) {
      return fail(kErrCrypto, "no random bytes for an IV");
    }
    if (gcm() == nullptr || EVP_CipherInit_ex2(ctx, gcm(), g_cache->key, iv, encrypt ? 1 : 0, nullptr) != 1) {
      return fail(kErrCrypto, "AES-256-GCM unavailable");
    }
  }
  uint8_t aad[kAadLen];
  seal_aad(kSealVersionFile, nonce, aad);
  int n = 0;
  return EVP_CipherUpdate(ctx, nullptr, &n, aad, static_cast<int>(kAadLen)) == 1
             ? kOk
             : fail(kErrCrypto, "AES-256-GCM failed");
}

Result seal(const uint8_t* keyblob, const uint8_t* nonce, const uint8_t* in, size_t in_len, void** out,
            size_t* out_len) {
  const size_t total = kSealOverhead + in_len;
  // Sealed bytes are not secret: a plain unique_ptr frees them on failure.
  std::unique_ptr<uint8_t, Free<&std::free>> owned(static_cast<uint8_t*>(std::malloc(total)));
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!owned || !ctx) {
    return fail(kErrNoMemory, "no memory to seal %zu bytes", in_len);
  }
  uint8_t* buf = owned.get();
  buf[0] = kSealVersionFile;
  uint8_t* iv = buf + 1;
  uint8_t* ct = iv + kIvLen;
  uint8_t* tag = ct + in_len;
  const Result r = start_gcm(ctx.get(), keyblob, iv, nonce, true);
  if (r != kOk) {
    return r;
  }
  int n = 0;
  int fin = 0;
  if ((in_len > 0 && (EVP_EncryptUpdate(ctx.get(), ct, &n, in, static_cast<int>(in_len)) != 1 ||
                      static_cast<size_t>(n) != in_len)) ||
      EVP_EncryptFinal_ex(ctx.get(), ct + in_len, &fin) != 1 || fin != 0 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagLen), tag) != 1) {
    return fail(kErrCrypto, "AES-256-GCM failed");
  }
  *out = owned.release();
  *out_len = total;
  return kOk;
}

Result unseal(const uint8_t* keyblob, const uint8_t* nonce, const uint8_t* in, size_t in_len, void** out,
              size_t* out_len) {
  if (in_len < kSealOverhead || in[0] != kSealVersionFile) {
    return fail(kErrFormat, in_len >= kSealOverhead && in[0] == kSealVersionToken
                                ? "sealed by the PKCS#11 backend; set KORA_KM_PKCS11_URI to open it"
                                : "not a sealed file of this key service (version or length)");
  }
  const size_t plain_len = in_len - kSealOverhead;
  const uint8_t* iv = in + 1;
  const uint8_t* ct = iv + kIvLen;
  // The tag is copied because the ctrl call takes a non-const pointer.
  uint8_t tag[kTagLen];
  std::memcpy(tag, ct + plain_len, kTagLen);
  SecureBytes plain(plain_len);
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (plain.data() == nullptr || !ctx) {
    return fail(kErrNoMemory, "no memory to unseal %zu bytes", in_len);
  }
  const Result r = start_gcm(ctx.get(), keyblob, const_cast<uint8_t*>(iv), nonce, false);
  if (r != kOk) {
    return r;
  }
  int n = 0;
  if ((plain_len > 0 &&
       (EVP_DecryptUpdate(ctx.get(), plain.data(), &n, ct, static_cast<int>(plain_len)) != 1 ||
        static_cast<size_t>(n) != plain_len)) ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagLen), tag) != 1) {
    return fail(kErrCrypto, "AES-256-GCM failed");
  }
  // GCM's final step compares the tag in constant time; on a mismatch the plain bytes are
  // wiped with the buffer.
  int fin = 0;
  if (EVP_DecryptFinal_ex(ctx.get(), plain.data() + plain_len, &fin) != 1) {
    return fail(kErrAuth, "sealed data altered, or sealed under another key blob or nonce");
  }
  *out_len = plain.size();
  *out = plain.release();
  return kOk;
}

}  // namespace

Result generate_keyblob(uint8_t** keyblob, size_t* keyblob_len) {
  struct Keys {
    uint8_t root[kRootKeyLen];
    uint8_t data[kDataKeyLen];
  };
  auto* keys = static_cast<Keys*>(locked_alloc(sizeof(Keys)));
  if (keys == nullptr) {
    return kErrNoMemory;
  }
  uint8_t wrapped[kDataKeyLen + 16];
  size_t wrapped_len = 0;
  Result r = load_root_key(keys->root, true);
  if (r == kOk && RAND_bytes(keys->data, static_cast<int>(kDataKeyLen)) != 1) {
    r = fail(kErrCrypto, "no random bytes for a data key");
  }
  if (r == kOk) {
    r = key_wrap(keys->root, keys->data, kDataKeyLen, wrapped, &wrapped_len, true);
  }
  locked_free(keys, sizeof(Keys));
  if (r == kOk && wrapped_len != kKeyBlobLen) {
    r = fail(kErrCrypto, "the wrapped data key is %zu bytes", wrapped_len);
  }
  if (r != kOk) {
    return r;
  }
  auto* blob = static_cast<uint8_t*>(std::malloc(wrapped_len));
  if (blob == nullptr) {
    return fail(kErrNoMemory, "no memory for a key blob");
  }
  std::memcpy(blob, wrapped, wrapped_len);
  *keyblob = blob;
  *keyblob_len = wrapped_len;
  return kOk;
}

Result crypt(const uint8_t* keyblob, const uint8_t* nonce, const uint8_t* in, size_t in_len, void** out,
             size_t* out_len, bool seal_it) {
  return seal_it ? seal(keyblob, nonce, in, in_len, out, out_len)
                 : unseal(keyblob, nonce, in, in_len, out, out_len);
}

void forget() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  locked_free(g_cache, sizeof(KeyCache));
  g_cache = nullptr;
}

}  // namespace kora::km::file
