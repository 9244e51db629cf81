// The object layer's log sites: each site expands to its own constant descriptor (line,
// subsystem id, level, "%s", "ssl_util"). Formatting is the store's: this layer links the
// store anyway, and both cut their text at the same 512-byte buffer.
#pragma once

#include <cstdint>

#include "msg_diag.h"
#include "ssl_store_log.h"

namespace kora::util {

inline constexpr uint16_t kUtilSubsystemId = 65;

}  // namespace kora::util

#define SSL_UTIL_LOG_AT(mask, ...)                                                                    \
  do {                                                                                                \
    static const msg_const_type kLogSite = {                                                          \
        {static_cast<uint16_t>(__LINE__), ::kora::util::kUtilSubsystemId, (mask)}, "%s", "ssl_util"}; \
    ::kora::store::log_message(&kLogSite, __VA_ARGS__);                                               \
  } while (0)

#define UTIL_LOG_ERROR(...) SSL_UTIL_LOG_AT(MSG_LEGACY_ERROR, __VA_ARGS__)
#define UTIL_LOG_HIGH(...) SSL_UTIL_LOG_AT(MSG_LEGACY_HIGH, __VA_ARGS__)
