#include "psk_store_substitute.h"

#include <benchmark/benchmark.h>

#include "kora_net_ssl.h"

namespace kora::bench {
namespace {
size_t g_last_size = 0;
}  // namespace

size_t last_stored_table_size() { return g_last_size; }

}  // namespace kora::bench

extern "C" int SSL_cert_store(const char* name, const kora_Net_SSL_Cert_Type_t type, const void* cert,
                              int size, bool priv_key) {
  benchmark::DoNotOptimize(name);
  benchmark::DoNotOptimize(type);
  benchmark::DoNotOptimize(cert);
  benchmark::DoNotOptimize(priv_key);
  kora::bench::g_last_size = size > 0 ? static_cast<size_t>(size) : 0;
  return KORA_OK;
}
