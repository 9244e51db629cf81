// The store's log sites, on the shared log-site macro.
#pragma once

#include "kora_log.h"

#define STORE_LOG_ERROR(...) KORA_LOG_AT("ssl_store", MSG_LEGACY_ERROR, __VA_ARGS__)
#define STORE_LOG_HIGH(...) KORA_LOG_AT("ssl_store", MSG_LEGACY_HIGH, __VA_ARGS__)
