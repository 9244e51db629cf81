// Store layout: the directory tree, names to absolute paths, existence tests.
#include <glib.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

#include "ssl_store.h"
#include "ssl_store_internal.h"
#include "ssl_store_layout.h"
#include "ssl_store_log.h"

namespace kora::store {
namespace {

// Every directory ends with "/"; a name is appended at the directory's length.
constexpr std::string_view kCertsDir = KORA_STORE_CERTS_DIR;
constexpr std::string_view kCaListsDir = KORA_STORE_CA_LISTS_DIR;
constexpr std::string_view kPskTableDir = KORA_STORE_PSK_TABLE_DIR;
constexpr std::string_view kDiCertsDir = KORA_STORE_DI_CERTS_DIR;
constexpr std::string_view kPrivateKeysDir = KORA_STORE_PRIVATE_KEYS_DIR;
constexpr std::string_view kSessionsDir = KORA_STORE_SESSIONS_DIR;
constexpr std::string_view kKeyblobDir = KORA_STORE_KEYBLOB_DIR;
constexpr std::string_view kKeyblobFile = KORA_STORE_KEYBLOB_FILE;

static_assert(kCertsDir.size() == 28 && kCaListsDir.size() == 31 && kPskTableDir.size() == 32 &&
              kDiCertsDir.size() == 31 && kPrivateKeysDir.size() == 35 && kSessionsDir.size() == 31 &&
              kKeyblobDir.size() == 30 && kKeyblobFile.size() == 40);

// The tree in creation order (see ssl_store_layout_dir).
constexpr const char* kTree[] = {
    KORA_STORE_ROOT,          KORA_STORE_CERTS_DIR,        KORA_STORE_CA_LISTS_DIR, KORA_STORE_DI_CERTS_DIR,
    KORA_STORE_PSK_TABLE_DIR, KORA_STORE_PRIVATE_KEYS_DIR, KORA_STORE_SESSIONS_DIR, KORA_STORE_KEYBLOB_DIR};
static_assert(std::size(kTree) == KORA_STORE_DIR_COUNT);

// A name must be shorter than 64 characters.
constexpr size_t kMaxNameLength = 63;

// True when `name` fits behind `directory` in a buffer of max_len (signed, so a zero or
// negative max_len refuses everything).
bool fits(std::string_view directory, const char* name, int max_len) {
  const size_t n = std::strlen(name);
  return n <= kMaxNameLength && static_cast<int>(directory.size() + n) < max_len;
}

void append_to(std::string_view directory, const char* name, char* file_path, int max_len) {
  g_strlcpy(file_path, directory.data(), static_cast<gsize>(max_len));
  g_strlcpy(file_path + directory.size(), name, static_cast<gsize>(max_len) - directory.size());
}

}  // namespace

std::string_view directory_for(kora_Net_SSL_Cert_Type_t type, bool key) {
  if (key) {
    return kPrivateKeysDir;
  }
  // Switched on as the plain integer C callers pass, which may lie outside the enum.
  switch (static_cast<int>(type)) {
    case KORA_NET_SSL_CERTIFICATE_E:
      return kCertsDir;
    case KORA_NET_SSL_CA_LIST_E:
      return kCaListsDir;
    case KORA_NET_SSL_PSK_TABLE_E:
      return kPskTableDir;
    case KORA_NET_SSL_DI_CERT_E:
      return kDiCertsDir;
  }
  return {};
}

int file_exists(const char* fname) {
  if (fname == nullptr) {
    STORE_LOG_ERROR("File name is NULL\n");
    return -1;
  }
  std::FILE* file = std::fopen(fname, "r");
  if (file == nullptr) {
    return 0;
  }
  // Written on every successful test; field logs are read for it.
  STORE_LOG_HIGH("Successfully opened the file in read mode\n");
  (void)std::fclose(file);
  return 1;
}

int cert_abs_path(const char* file_name, kora_Net_SSL_Cert_Type_t type, char* file_path, int max_len,
                  bool key) {
  if (file_path == nullptr || file_name == nullptr) {
    STORE_LOG_ERROR("SSL_cert_get_abs_path: Invalid EFS file name or path \n");
    return KORA_ERR_INVALID_PARAM;
  }
  const std::string_view directory = directory_for(type, key);
  if (directory.empty()) {
    // High level, not error: callers probe types and the field logs filter on it.
    STORE_LOG_HIGH("SSL_cert_get_abs_path: Invalid type\n");
    return KORA_ERR_INVALID_PARAM;
  }
  if (!fits(directory, file_name, max_len)) {
    STORE_LOG_ERROR("Invalid EFS length");
    return KORA_ERROR;
  }
  append_to(directory, file_name, file_path, max_len);
  return KORA_OK;
}

int cert_file_exists(const char* file_name, kora_Net_SSL_Cert_Type_t type) {
  char path[512];
  std::memset(path, 0, sizeof path);
  if (file_name == nullptr) {
    STORE_LOG_ERROR("Invalid file name or path\n");
    return KORA_ERR_INVALID_PARAM;
  }
  // Only the credential itself is tested, never its private key.
  if (cert_abs_path(file_name, type, path, sizeof path, false) != KORA_OK) {
    STORE_LOG_ERROR("Is_SSL_cert_file_exist: Error reading File :%s\n", file_name);
    // An invalid type ends here as -1 too, not -2: callers only test for 0.
    return KORA_ERROR;
  }
  if (file_exists(path) == 0) {
    STORE_LOG_ERROR("Is_SSL_cert_file_exist: File :%s is not exist \n", file_name);
    return KORA_ERROR;
  }
  return KORA_OK;
}

int session_abs_path(const char* file_name, char* file_path, int max_len) {
  if (file_name == nullptr || file_path == nullptr) {
    STORE_LOG_ERROR("SSL_session_get_abs_path: Invalid file name or path \n");
    return KORA_ERR_INVALID_PARAM;
  }
  if (!fits(kSessionsDir, file_name, max_len)) {
    STORE_LOG_ERROR("Invalid file path length");
    return KORA_ERROR;
  }
  append_to(kSessionsDir, file_name, file_path, max_len);
  return KORA_OK;
}

}  // namespace kora::store

extern "C" {

const char* const g_ssl_cert_sub_folder_name_for_certs = kora::store::kCertsDir.data();
const char* const g_ssl_cert_sub_folder_name_for_ca_lists = kora::store::kCaListsDir.data();
const char* const g_ssl_cert_sub_folder_name_for_psk_table = kora::store::kPskTableDir.data();
const char* const g_ssl_cert_sub_folder_name_for_di_certs = kora::store::kDiCertsDir.data();
const char* const g_ssl_cert_sub_folder_name_for_pri_keys = kora::store::kPrivateKeysDir.data();
const char* const g_ssl_cert_sub_folder_name_for_session = kora::store::kSessionsDir.data();
const char* const g_ssl_tz_keyblob_path = kora::store::kKeyblobDir.data();
const char* const g_ssl_ta_keyblob_file_name = kora::store::kKeyblobFile.data();

const char* ssl_store_layout_dir(size_t index) {
  return index < std::size(kora::store::kTree) ? kora::store::kTree[index] : nullptr;
}

const char* ssl_store_kind_dir(kora_Net_SSL_Cert_Type_t type, bool key) {
  const std::string_view directory = kora::store::directory_for(type, key);
  return directory.empty() ? nullptr : directory.data();
}

int fileExists(const char* fname) { return kora::store::file_exists(fname); }

int SSL_cert_get_abs_path(const char* file_name, const kora_Net_SSL_Cert_Type_t type, char* file_path,
                          int max_len, bool key) {
  return kora::store::cert_abs_path(file_name, type, file_path, max_len, key);
}

int Is_SSL_cert_file_exist(const char* file_name, const kora_Net_SSL_Cert_Type_t type) {
  return kora::store::cert_file_exists(file_name, type);
}

int SSL_session_get_abs_path(const char* file_name, char* file_path, int max_len) {
  return kora::store::session_abs_path(file_name, file_path, max_len);
}

}  // extern "C"
