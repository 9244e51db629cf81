// Installing a stored PSK table on an SSL object, and the PSK client callback that serves an
// identity and its key from that table during a handshake.
// The table's layout is in ssl_psk_table.h. Its size is not kept: the callback's walk relies
// on the entry count alone.
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cstdlib>
#include <cstring>

#include "ssl_psk_table.h"
#include "ssl_store.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

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
    // Legacy: the replaced table goes back to free() as it is, unwiped (ssl_obj_free wipes).
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
  const auto* table = reinterpret_cast<const uint8_t*>(g_ssl_ctxt[index].psk_identify_key);
  if (table == nullptr) {
    STORE_LOG_ERROR("Unable to get PSK identify/key\n");
    return 0;
  }

  // The hint does not change during the walk; measured once, not per entry.
  const size_t hint_len = hint != nullptr ? std::strlen(hint) : 0;
  uint16_t entrynum = kora_psk_table_count(table);
  const uint8_t* psk_ptr = kora_psk_table_entries(table);
  for (; entrynum > 0; --entrynum) {
    kora_psk_entry_t entry;
    const uint8_t* const next = kora_psk_entry_at(psk_ptr, &entry);
    const uint16_t identify_size = entry.identity_len;
    const uint8_t* identify = entry.identity;
    const uint16_t key_size = entry.key_len;

    if (identify_size > max_identity_len) {
      // The limit is printed first, the entry's size second.
      STORE_LOG_ERROR("Max identify size from openssl:%d > identify size of UE:%d, can't use",
                      static_cast<int>(max_identity_len), static_cast<int>(identify_size));
      psk_ptr = next;
      continue;
    }
    if (hint != nullptr && (hint_len != identify_size || std::memcmp(hint, identify, identify_size) != 0)) {
      psk_ptr = next;
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
      psk_ptr = entry.key_len_field;
      continue;
    }

    std::memcpy(psk, entry.key, key_size);
    if (key_size < max_psk_len) {
      psk[key_size] = 0;  // a key that fills the room has no terminator: it must stay in bounds
    }
    return key_size;
  }
  return 0;
}

// Walks a stored table with every length checked against the buffer, handing out the
// identities only. The callback's walk trusts the table instead, as it always has.
int table_identities(const char* name, ssl_psk_identity_fn fn, void* user) {
  char path[512];
  if (name == nullptr || fn == nullptr ||
      SSL_cert_get_abs_path(name, KORA_NET_SSL_PSK_TABLE_E, path, sizeof path, false) != KORA_OK) {
    return KORA_ERR_INVALID_PARAM;
  }
  void* buffer = nullptr;
  size_t size = 0;
  if (ssl_store_cert_read_decrypt_from_file(path, &buffer, &size) != 0 || buffer == nullptr) {
    kora_psk_table_free(buffer);
    return KORA_ERROR;
  }
  const auto* table = static_cast<const uint8_t*>(buffer);
  int count = size >= KORA_PSK_TABLE_HEADER_SIZE ? kora_psk_table_count(table) : -1;
  size_t at = KORA_PSK_TABLE_HEADER_SIZE;
  for (int i = 0; i < count; ++i) {
    kora_psk_entry_t entry;
    if (kora_psk_entry_next(table, size, &at, &entry) != 0) {
      count = -1;
      break;
    }
    fn(entry.identity, entry.identity_len, user);
  }
  kora_psk_table_free(buffer);
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
