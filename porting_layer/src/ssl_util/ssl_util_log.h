// The object layer's log sites, on the shared log-site macro (its formatter is linked in with
// the store, which this layer links anyway).
#pragma once

#include "kora_log.h"

#define UTIL_LOG_ERROR(...) KORA_LOG_AT("ssl_util", MSG_LEGACY_ERROR, __VA_ARGS__)
#define UTIL_LOG_HIGH(...) KORA_LOG_AT("ssl_util", MSG_LEGACY_HIGH, __VA_ARGS__)
