// The object layer's log sites: each site expands to its own constant descriptor (line,
// subsystem id, level, "%s", "ssl_util") and formats into a 512-byte buffer.
#pragma once

#include <cstdint>

#include "msg_diag.h"

namespace kora::util {

inline constexpr uint16_t kUtilSubsystemId = 65;

// Formats like snprintf into a 512-byte local buffer (longer output is cut) and hands the
// text to msg_sprintf with the site's descriptor.
void log_message(const msg_const_type* site, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace kora::util

#define SSL_UTIL_LOG_AT(mask, ...)                                                                    \
  do {                                                                                                \
    static const msg_const_type kLogSite = {                                                          \
        {static_cast<uint16_t>(__LINE__), ::kora::util::kUtilSubsystemId, (mask)}, "%s", "ssl_util"}; \
    ::kora::util::log_message(&kLogSite, __VA_ARGS__);                                                \
  } while (0)

#define UTIL_LOG_ERROR(...) SSL_UTIL_LOG_AT(MSG_LEGACY_ERROR, __VA_ARGS__)
#define UTIL_LOG_HIGH(...) SSL_UTIL_LOG_AT(MSG_LEGACY_HIGH, __VA_ARGS__)
