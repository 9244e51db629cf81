// The store's log sites. Every site expands to its own constant descriptor carrying the
// site's line, the module's subsystem id and the level, then formats into a 512-byte buffer.
#pragma once

#include "msg_diag.h"

namespace kora::store {

inline constexpr uint16_t kStoreSubsystemId = 65;

// Formats like snprintf into a 512-byte local buffer (longer output is cut) and hands the
// text to msg_sprintf with the site's descriptor.
void log_message(const msg_const_type* site, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace kora::store

#define SSL_STORE_LOG_AT(mask, ...)                                                                      \
  do {                                                                                                   \
    static const msg_const_type kLogSite = {                                                             \
        {static_cast<uint16_t>(__LINE__), ::kora::store::kStoreSubsystemId, (mask)}, "%s", "ssl_store"}; \
    ::kora::store::log_message(&kLogSite, __VA_ARGS__);                                                  \
  } while (0)

#define STORE_LOG_ERROR(...) SSL_STORE_LOG_AT(MSG_LEGACY_ERROR, __VA_ARGS__)
#define STORE_LOG_HIGH(...) SSL_STORE_LOG_AT(MSG_LEGACY_HIGH, __VA_ARGS__)
