// The log sites of the store and the SSL object layer. Every site expands to its own constant
// descriptor carrying the site's line, the subsystem id both modules report under, the level,
// "%s" and the module's name, then formats into a 512-byte buffer handed to msg_sprintf.
#pragma once

#include <cstdint>

#include "msg_diag.h"

namespace kora::log {

inline constexpr uint16_t kSubsystemId = 65;

// Formats like snprintf into a 512-byte local buffer (longer output is cut) and hands the
// text to msg_sprintf with the site's descriptor.
void message(const msg_const_type* site, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace kora::log

// One site of `module` (its name in the descriptor) at level `mask`.
#define KORA_LOG_AT(module, mask, ...)                                                         \
  do {                                                                                         \
    static const msg_const_type kLogSite = {                                                   \
        {static_cast<uint16_t>(__LINE__), ::kora::log::kSubsystemId, (mask)}, "%s", (module)}; \
    ::kora::log::message(&kLogSite, __VA_ARGS__);                                              \
  } while (0)
