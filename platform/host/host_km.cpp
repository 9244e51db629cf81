// Host key-management service. A 256-bit data key is handed out wrapped (RFC 5649) under
// a root key kept in a file outside the store; sealing is AES-256-GCM under the unwrapped
// data key with a fresh IV per call and the caller's nonce bound as associated data.
#include "host_km.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "ossl_ptr.h"
#include "ssl_KM_crypto_services.h"

#ifndef KORA_KM_ROOT_KEY_DEFAULT
#define KORA_KM_ROOT_KEY_DEFAULT "/var/lib/kora-km/root.key"
#endif

namespace kora::km {
namespace {

// Fixed-size key material on the stack, wiped when it goes out of scope.
template <size_t N>
struct Secret {
  uint8_t bytes[N] = {};
  Secret() = default;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { OPENSSL_cleanse(bytes, N); }
};

// A malloc'd buffer of plain bytes: wiped and freed unless ownership is handed out.
struct PlainBuffer {
  uint8_t* data = nullptr;
  size_t len = 0;
  PlainBuffer() = default;
  PlainBuffer(const PlainBuffer&) = delete;
  PlainBuffer& operator=(const PlainBuffer&) = delete;
  ~PlainBuffer() {
    if (data != nullptr) {
      OPENSSL_cleanse(data, len);
      std::free(data);
    }
  }
  uint8_t* release() {
    uint8_t* p = data;
    data = nullptr;
    return p;
  }
};

bool write_all(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) {
      continue;
    }
    if (w <= 0) {
      return false;
    }
    p += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

// Creates every missing directory of `dir`, each with mode 0700.
bool make_private_dirs(const std::string& dir) {
  if (dir.empty()) {
    return true;
  }
  struct stat st {};
  if (::stat(dir.c_str(), &st) == 0) {
    return S_ISDIR(st.st_mode);
  }
  const size_t slash = dir.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !make_private_dirs(dir.substr(0, slash))) {
    return false;
  }
  if (::mkdir(dir.c_str(), 0700) != 0) {
    // Another process may have made it a moment ago.
    return errno == EEXIST && ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  }
  return ::chmod(dir.c_str(), 0700) == 0;
}

// Makes a new root key at `path`. The key is written in full to a private temporary file
// (O_CREAT|O_EXCL, 0600) and then linked to its final name, which fails if another process
// got there first; either way a reader never sees a partly written key.
Result create_root_key(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash);
  if (!make_private_dirs(dir)) {
    return kErrRootKey;
  }
  Secret<kRootKeyLen> key;
  if (RAND_bytes(key.bytes, static_cast<int>(sizeof key.bytes)) != 1) {
    return kErrCrypto;
  }
  uint8_t salt[8];
  if (RAND_bytes(salt, sizeof salt) != 1) {
    return kErrCrypto;
  }
  char suffix[40];
  (void)std::snprintf(suffix, sizeof suffix, ".tmp.%ld.%02x%02x%02x%02x", static_cast<long>(::getpid()),
                      salt[0], salt[1], salt[2], salt[3]);
  const std::string tmp = path + suffix;
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    return kErrRootKey;
  }
  const bool written =
      ::fchmod(fd, 0600) == 0 && write_all(fd, key.bytes, sizeof key.bytes) && ::fsync(fd) == 0;
  if (::close(fd) != 0 || !written) {
    (void)::unlink(tmp.c_str());
    return kErrRootKey;
  }
  const bool linked = ::link(tmp.c_str(), path.c_str()) == 0 || errno == EEXIST;
  (void)::unlink(tmp.c_str());
  return linked ? kOk : kErrRootKey;
}

// Reads the root key, creating it on first use. Anything but a regular file of exactly
// 32 bytes is refused.
Result load_root_key(Secret<kRootKeyLen>& key) {
  const std::string path = root_key_path();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) {
    const Result made = create_root_key(path);
    if (made != kOk) {
      return made;
    }
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  }
  if (fd < 0) {
    return kErrRootKey;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size != static_cast<off_t>(kRootKeyLen)) {
    (void)::close(fd);
    return kErrRootKey;
  }
  // One byte more than expected, to notice a file that grew after fstat.
  uint8_t buf[kRootKeyLen + 1];
  size_t got = 0;
  while (got < sizeof buf) {
    const ssize_t r = ::read(fd, buf + got, sizeof buf - got);
    if (r < 0 && errno == EINTR) {
      continue;
    }
    if (r <= 0) {
      break;
    }
    got += static_cast<size_t>(r);
  }
  (void)::close(fd);
  const bool ok = got == kRootKeyLen;
  if (ok) {
    std::memcpy(key.bytes, buf, kRootKeyLen);
  }
  OPENSSL_cleanse(buf, sizeof buf);
  return ok ? kOk : kErrRootKey;
}

// AES key wrap with padding under the root key: encrypt = wrap, else unwrap. `out` has
// room for in_len + 8 bytes; *out_len receives the result's length.
Result key_wrap(const uint8_t* root, const uint8_t* in, size_t in_len, uint8_t* out, size_t* out_len,
                bool encrypt) {
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx) {
    return kErrNoMemory;
  }
  EVP_CIPHER_CTX_set_flags(ctx.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
  if (EVP_CipherInit_ex(ctx.get(), EVP_aes_256_wrap_pad(), nullptr, root, nullptr, encrypt ? 1 : 0) != 1) {
    return kErrCrypto;
  }
  int n = 0;
  if (EVP_CipherUpdate(ctx.get(), out, &n, in, static_cast<int>(in_len)) != 1 || n < 0) {
    // On unwrap this is the integrity check failing: not our root key, or a damaged blob.
    return encrypt ? kErrCrypto : kErrKeyBlob;
  }
  int fin = 0;
  if (EVP_CipherFinal_ex(ctx.get(), out + n, &fin) != 1 || fin < 0) {
    return encrypt ? kErrCrypto : kErrKeyBlob;
  }
  *out_len = static_cast<size_t>(n) + static_cast<size_t>(fin);
  return kOk;
}

Result unwrap_data_key(const uint8_t* keyblob, size_t keyblob_len, Secret<kDataKeyLen>& data_key) {
  if (keyblob_len != kKeyBlobLen) {
    return kErrKeyBlob;
  }
  Secret<kRootKeyLen> root;
  const Result r = load_root_key(root);
  if (r != kOk) {
    return r;
  }
  Secret<kKeyBlobLen + 8> plain;
  size_t plain_len = 0;
  const Result u = key_wrap(root.bytes, keyblob, keyblob_len, plain.bytes, &plain_len, false);
  if (u != kOk) {
    return u;
  }
  if (plain_len != kDataKeyLen) {
    return kErrKeyBlob;
  }
  std::memcpy(data_key.bytes, plain.bytes, kDataKeyLen);
  return kOk;
}

// Sets ctx up for AES-256-GCM under key and iv (encrypt = seal, else unseal) and binds the
// associated data of every seal: the format version and the caller's nonce.
bool start_gcm(EVP_CIPHER_CTX* ctx, const uint8_t* key, const uint8_t* iv, const uint8_t* nonce,
               bool encrypt) {
  const int enc = encrypt ? 1 : 0;
  uint8_t aad[1 + kNonceLen];
  aad[0] = kSealVersion;
  std::memcpy(aad + 1, nonce, kNonceLen);
  int n = 0;
  return EVP_CipherInit_ex(ctx, EVP_aes_256_gcm(), nullptr, nullptr, nullptr, enc) == 1 &&
         EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(kIvLen), nullptr) == 1 &&
         EVP_CipherInit_ex(ctx, nullptr, nullptr, key, iv, enc) == 1 &&
         EVP_CipherUpdate(ctx, nullptr, &n, aad, static_cast<int>(sizeof aad)) == 1;
}

Result seal(const uint8_t* key, const uint8_t* nonce, const uint8_t* in, size_t in_len, void** out,
            size_t* out_len) {
  const size_t total = kSealOverhead + in_len;
  auto* buf = static_cast<uint8_t*>(std::malloc(total));
  if (buf == nullptr) {
    return kErrNoMemory;
  }
  // Sealed bytes are not secret: a plain unique_ptr frees them on failure.
  std::unique_ptr<uint8_t, Free<&std::free>> owned(buf);
  buf[0] = kSealVersion;
  uint8_t* iv = buf + 1;
  uint8_t* ct = iv + kIvLen;
  uint8_t* tag = ct + in_len;
  if (RAND_bytes(iv, static_cast<int>(kIvLen)) != 1) {
    return kErrCrypto;
  }
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx) {
    return kErrNoMemory;
  }
  if (!start_gcm(ctx.get(), key, iv, nonce, true)) {
    return kErrCrypto;
  }
  int n = 0;
  if (in_len > 0 && (EVP_EncryptUpdate(ctx.get(), ct, &n, in, static_cast<int>(in_len)) != 1 ||
                     static_cast<size_t>(n) != in_len)) {
    return kErrCrypto;
  }
  int fin = 0;
  if (EVP_EncryptFinal_ex(ctx.get(), ct + in_len, &fin) != 1 || fin != 0 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagLen), tag) != 1) {
    return kErrCrypto;
  }
  *out = owned.release();
  *out_len = total;
  return kOk;
}

Result unseal(const uint8_t* key, const uint8_t* nonce, const uint8_t* in, size_t in_len, void** out,
              size_t* out_len) {
  if (in_len < kSealOverhead || in[0] != kSealVersion) {
    return kErrFormat;
  }
  const size_t plain_len = in_len - kSealOverhead;
  const uint8_t* iv = in + 1;
  const uint8_t* ct = iv + kIvLen;
  // The tag is copied because the ctrl call takes a non-const pointer.
  uint8_t tag[kTagLen];
  std::memcpy(tag, ct + plain_len, kTagLen);

  PlainBuffer plain;
  plain.data = static_cast<uint8_t*>(std::malloc(plain_len > 0 ? plain_len : 1));
  if (plain.data == nullptr) {
    return kErrNoMemory;
  }
  plain.len = plain_len;
  EvpCipherCtxPtr ctx(EVP_CIPHER_CTX_new());
  if (!ctx) {
    return kErrNoMemory;
  }
  if (!start_gcm(ctx.get(), key, iv, nonce, false)) {
    return kErrCrypto;
  }
  int n = 0;
  if (plain_len > 0 && (EVP_DecryptUpdate(ctx.get(), plain.data, &n, ct, static_cast<int>(plain_len)) != 1 ||
                        static_cast<size_t>(n) != plain_len)) {
    return kErrCrypto;
  }
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagLen), tag) != 1) {
    return kErrCrypto;
  }
  // GCM's final step compares the tag in constant time; a mismatch wipes the plain bytes.
  int fin = 0;
  if (EVP_DecryptFinal_ex(ctx.get(), plain.data + plain_len, &fin) != 1) {
    return kErrAuth;
  }
  *out_len = plain.len;
  *out = plain.release();
  return kOk;
}

}  // namespace

const char* root_key_path() {
  const char* env = std::getenv("KORA_KM_ROOT_KEY");
  return env != nullptr && env[0] != '\0' ? env : KORA_KM_ROOT_KEY_DEFAULT;
}

Result generate_keyblob(uint8_t** keyblob, size_t* keyblob_len) {
  if (keyblob == nullptr || keyblob_len == nullptr) {
    return kErrArgs;
  }
  Secret<kRootKeyLen> root;
  const Result r = load_root_key(root);
  if (r != kOk) {
    return r;
  }
  Secret<kDataKeyLen> data_key;
  if (RAND_bytes(data_key.bytes, static_cast<int>(kDataKeyLen)) != 1) {
    return kErrCrypto;
  }
  uint8_t wrapped[kDataKeyLen + 16];
  size_t wrapped_len = 0;
  const Result w = key_wrap(root.bytes, data_key.bytes, kDataKeyLen, wrapped, &wrapped_len, true);
  if (w != kOk) {
    return w;
  }
  if (wrapped_len != kKeyBlobLen) {
    return kErrCrypto;
  }
  auto* blob = static_cast<uint8_t*>(std::malloc(wrapped_len));
  if (blob == nullptr) {
    return kErrNoMemory;
  }
  std::memcpy(blob, wrapped, wrapped_len);
  *keyblob = blob;
  *keyblob_len = wrapped_len;
  return kOk;
}

Result crypt(const uint8_t* keyblob, size_t keyblob_len, const uint8_t* nonce, const void* in, size_t in_len,
             void** out, size_t* out_len, int direction) {
  if (keyblob == nullptr || nonce == nullptr || out == nullptr || out_len == nullptr ||
      (in == nullptr && in_len != 0) ||
      (direction != SSL_KM_DIRECTION_SEAL && direction != SSL_KM_DIRECTION_UNSEAL)) {
    return kErrArgs;
  }
  if (in_len > static_cast<size_t>(INT_MAX) - kSealOverhead) {
    return kErrArgs;
  }
  Secret<kDataKeyLen> data_key;
  const Result k = unwrap_data_key(keyblob, keyblob_len, data_key);
  if (k != kOk) {
    return k;
  }
  const auto* bytes = static_cast<const uint8_t*>(in);
  if (direction == SSL_KM_DIRECTION_SEAL) {
    return seal(data_key.bytes, nonce, bytes, in_len, out, out_len);
  }
  return unseal(data_key.bytes, nonce, bytes, in_len, out, out_len);
}

}  // namespace kora::km

extern "C" int ssl_KM_TA_crypto_services_generate_keyblob(uint8_t** keyblob, size_t* keyblob_len) {
  return kora::km::generate_keyblob(keyblob, keyblob_len);
}

extern "C" int ssl_KM_TA_crypto_services_encrypt_decrypt_data(const uint8_t* keyblob, size_t keyblob_len,
                                                              const uint8_t* nonce, const void* in,
                                                              size_t in_len, void** out, size_t* out_len,
                                                              int direction) {
  return kora::km::crypt(keyblob, keyblob_len, nonce, in, in_len, out, out_len, direction);
}
