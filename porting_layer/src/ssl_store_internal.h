// Shared inside the store module only: the contract's path globals, the directory of each kind
// and the key material. The layout itself is in ssl_store_layout.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kora_net_ssl.h"

extern "C" {
extern const char* const g_ssl_cert_sub_folder_name_for_certs;
extern const char* const g_ssl_cert_sub_folder_name_for_ca_lists;
extern const char* const g_ssl_cert_sub_folder_name_for_psk_table;
extern const char* const g_ssl_cert_sub_folder_name_for_di_certs;
extern const char* const g_ssl_cert_sub_folder_name_for_pri_keys;
extern const char* const g_ssl_cert_sub_folder_name_for_session;
extern const char* const g_ssl_tz_keyblob_path;
extern const char* const g_ssl_ta_keyblob_file_name;

// Key material, filled once at start-up and never changed afterwards.
extern uint8_t* gp_tz_keyblob;
extern size_t g_keyblob_len;
extern uint8_t* gp_ta_nonceBuf;
}

namespace kora::store {

// The directory of a credential (ending in "/", NUL-terminated), or an empty view for a kind
// outside 1..4. The key flag wins over the kind, which is then not looked at.
std::string_view directory_for(kora_Net_SSL_Cert_Type_t type, bool key);

// The nonce pointer is not part of the test.
inline bool key_material_available() { return gp_tz_keyblob != nullptr && g_keyblob_len != 0; }

}  // namespace kora::store
