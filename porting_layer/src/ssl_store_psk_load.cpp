// Installing a stored PSK table on an SSL object, and the PSK client callback that serves an
// identity and its key from that table during a handshake.
//
// The table (as the PSK parser stores it): a 4-byte header whose bytes 2-3 hold the entry
// count, big-endian, then the entries back to back, each a big-endian 16-bit identity length,
// the identity, a big-endian 16-bit key length and the key. Its size is not kept: the walk
// relies on the entry count alone.
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cstdlib>
#include <cstring>

#include "ssl_store.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

uint16_t read_be16(const unsigned char* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

int psk_table_load(ssl_obj_hdl_t hdl, const char* file_path) {
  void* buffer = nullptr;
  size_t buf_size = 0;  // not used beyond the read: the table is not checked at load time
  int index = -1;

  if (file_path == nullptr) {
    STORE_LOG_ERROR("Filepath for PSK is set NULL\n");
    return KORA_ERR_INVALID_PARAM;
  }
  SSL_CTX* ssl = ssl_get_obj_context(hdl);
  if (ssl == nullptr) {
    STORE_LOG_ERROR("SSL conn object is NULL\n");
    return KORA_ERR_INVALID_PARAM;
  }
  (void)utility_get_ssl_ctxt(ssl, &index);
  if (index == -1) {
    STORE_LOG_ERROR("Unable to get the correct global index\n");
    return KORA_ERROR;
  }
  // No refusal when the object already carries a certificate or CA list: only the
  // certificate side checks for the other.
  if (ssl_store_cert_read_decrypt_from_file(file_path, &buffer, &buf_size) != 0) {
    // The table installed before, if any, stays.
    STORE_LOG_ERROR("ERROR: Reading psk info from cert loc failed!! \r\n");
    return KORA_ERROR;
  }

  // The record owns the table from here until the next load replaces it (or the object
  // layer releases the record).
  if (g_ssl_ctxt[index].psk_identify_key != nullptr) {
    free(g_ssl_ctxt[index].psk_identify_key);
  }
  g_ssl_ctxt[index].psk_identify_key = static_cast<char*>(buffer);

  if (buffer == nullptr) {
    // A callback registered by an earlier load stays registered.
    STORE_LOG_ERROR("Invalid Configuration. No PSK set for the context\n");
    return KORA_OK;
  }
  SSL_CTX_set_psk_client_callback(ssl, psk_client_cb);
  return KORA_OK;
}

// Runs on the handshake's thread without ssl_mutex: it only reads the record and the table.
unsigned int client_callback(SSL* ssl, const char* hint, char* identity, unsigned int max_identity_len,
                             unsigned char* psk, unsigned int max_psk_len) {
  int index = -1;

  if (ssl == nullptr) {
    STORE_LOG_ERROR("SSL connection in NULL\n");
    return 0;
  }
  if (identity == nullptr) {
    STORE_LOG_ERROR("Identity is NULL \n");
    return 0;
  }
  if (psk == nullptr) {
    STORE_LOG_ERROR("PSK is NULL\n");
    return 0;
  }
  if (hint == nullptr) {
    STORE_LOG_ERROR("NULL received PSK identity hint, continuing anyway\n");
  } else {
    STORE_LOG_HIGH("Received PSK identity hint '%s'\n", hint);
  }

  (void)utility_get_ssl_ctxt(SSL_get_SSL_CTX(ssl), &index);
  if (index == -1) {
    STORE_LOG_ERROR("Unable to get the correct global index\n");
    return 0;
  }
  const auto* table = reinterpret_cast<const unsigned char*>(g_ssl_ctxt[index].psk_identify_key);
  if (table == nullptr) {
    STORE_LOG_ERROR("Unable to get PSK identify/key\n");
    return 0;
  }

  // The hint does not change during the walk; measured once, not per entry.
  const size_t hint_len = hint != nullptr ? std::strlen(hint) : 0;
  uint16_t entrynum = read_be16(table + 2);
  const unsigned char* psk_ptr = table + 4;
  for (; entrynum > 0; --entrynum) {
    const uint16_t identify_size = read_be16(psk_ptr);
    const unsigned char* identify = psk_ptr + 2;
    const unsigned char* key_len_field = identify + identify_size;
    const uint16_t key_size = read_be16(key_len_field);
    const unsigned char* key = key_len_field + 2;

    if (identify_size > max_identity_len) {
      // The limit is printed first, the entry's size second.
      STORE_LOG_ERROR("Max identify size from openssl:%d > identify size of UE:%d, can't use",
                      static_cast<int>(max_identity_len), static_cast<int>(identify_size));
      psk_ptr = key + key_size;
      continue;
    }
    if (hint != nullptr && (hint_len != identify_size || std::memcmp(hint, identify, identify_size) != 0)) {
      psk_ptr = key + key_size;
      continue;
    }

    // No terminator is written: OpenSSL's identity buffer is zero-filled and one byte longer
    // than max_identity_len.
    std::memcpy(identity, identify, identify_size);
    STORE_LOG_HIGH("created identity '%s'\n", identity);

    if (key_size > max_psk_len) {
      STORE_LOG_ERROR("Max key size from openssl:%d > key size of UE:%d, can't use",
                      static_cast<int>(max_psk_len), static_cast<int>(key_size));
      // intended: the cursor stays on this entry's key-length field, which the next pass
      // reads as the next entry's identity length.
      psk_ptr = key_len_field;
      continue;
    }

    std::memcpy(psk, key, key_size);
    if (key_size < max_psk_len) {
      psk[key_size] = 0;  // a key that fills the room has no terminator: it must stay in bounds
    }
    return key_size;
  }
  return 0;
}

// Walks a stored table with every length checked against the buffer, handing out the
// identities only. Not used by the loader or the callback, which keep their own walk.
int table_identities(const char* name, ssl_psk_identity_fn fn, void* user) {
  char path[512];
  if (name == nullptr || fn == nullptr ||
      SSL_cert_get_abs_path(name, KORA_NET_SSL_PSK_TABLE_E, path, sizeof path, false) != KORA_OK) {
    return KORA_ERR_INVALID_PARAM;
  }
  void* buffer = nullptr;
  size_t size = 0;
  if (ssl_store_cert_read_decrypt_from_file(path, &buffer, &size) != 0 || buffer == nullptr) {
    free(buffer);
    return KORA_ERROR;
  }
  const auto* table = static_cast<const unsigned char*>(buffer);
  constexpr size_t kHeaderSize = 4;
  constexpr size_t kLengthSize = 2;
  int count = size >= kHeaderSize ? read_be16(table + 2) : -1;
  size_t at = kHeaderSize;
  for (int i = 0; i < count; ++i) {
    if (size - at < kLengthSize || size - at - kLengthSize < read_be16(table + at)) {
      count = -1;
      break;
    }
    const size_t identity_size = read_be16(table + at);
    const unsigned char* identity = table + at + kLengthSize;
    at += kLengthSize + identity_size;
    if (size - at < kLengthSize || size - at - kLengthSize < read_be16(table + at)) {
      count = -1;
      break;
    }
    at += kLengthSize + read_be16(table + at);
    fn(identity, identity_size, user);
  }
  OPENSSL_cleanse(buffer, size);
  free(buffer);
  return count < 0 ? KORA_ERROR : count;
}

}  // namespace
}  // namespace kora::store

extern "C" int SSL_psk_table_load(ssl_obj_hdl_t hdl, const char* file_path, int max_psk_len) {
  (void)max_psk_len;  // key sizes are checked in the callback, against OpenSSL's limit
  return kora::store::psk_table_load(hdl, file_path);
}

extern "C" unsigned int psk_client_cb(SSL* ssl, const char* hint, char* identity,
                                      unsigned int max_identity_len, unsigned char* psk,
                                      unsigned int max_psk_len) {
  return kora::store::client_callback(ssl, hint, identity, max_identity_len, psk, max_psk_len);
}

extern "C" int SSL_psk_table_identities(const char* name, ssl_psk_identity_fn fn, void* user) {
  return kora::store::table_identities(name, fn, user);
}
