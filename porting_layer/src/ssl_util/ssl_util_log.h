// The object layer's log sites, on the shared log-site macro (its formatter is linked in with
// the store, which this layer links anyway).
#pragma once

#include <cstdint>

#include "kora_log.h"

namespace kora::util {

inline constexpr uint16_t kUtilSubsystemId = 65;

}  // namespace kora::util

#define UTIL_LOG_ERROR(...) \
  KORA_LOG_AT(::kora::util::kUtilSubsystemId, "ssl_util", MSG_LEGACY_ERROR, __VA_ARGS__)
#define UTIL_LOG_HIGH(...) \
  KORA_LOG_AT(::kora::util::kUtilSubsystemId, "ssl_util", MSG_LEGACY_HIGH, __VA_ARGS__)
