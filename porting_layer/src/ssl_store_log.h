// The store's log sites, on the shared log-site macro.
#pragma once

#include <cstdint>

#include "kora_log.h"

namespace kora::store {

inline constexpr uint16_t kStoreSubsystemId = 65;

}  // namespace kora::store

#define STORE_LOG_ERROR(...) \
  KORA_LOG_AT(::kora::store::kStoreSubsystemId, "ssl_store", MSG_LEGACY_ERROR, __VA_ARGS__)
#define STORE_LOG_HIGH(...) \
  KORA_LOG_AT(::kora::store::kStoreSubsystemId, "ssl_store", MSG_LEGACY_HIGH, __VA_ARGS__)
