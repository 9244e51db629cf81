// Shared inside the store module only: directory constants and the key material.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kora::store {

// Directory of each kind; names are appended to them as they are.
inline constexpr std::string_view kDataRoot = "/data/data_velto/";
inline constexpr std::string_view kStoreRoot = "/data/data_velto/.ssl/";
inline constexpr std::string_view kCaListTempFile = "/data/data_velto/.ssl/temp";

}  // namespace kora::store

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
