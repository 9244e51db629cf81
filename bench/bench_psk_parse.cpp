// Parsing PSK text into the binary table (the storing of the table left out through the
// stand-in SSL_cert_store), next to OpenSSL's hex decoder over the same key digits; and the
// peak heap of one parse.
#include <benchmark/benchmark.h>
#include <openssl/crypto.h>

#include <string>

#include "bench_psk_text.h"
#include "heap_counter.h"
#include "kora_net_ssl.h"
#include "psk_store_substitute.h"
#include "ssl_store.h"

namespace kora::bench {
namespace {

constexpr const uint8_t kTableName[] = "bench-psk";

int32_t parse(PskText& t) {
  kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(t.text.size()),
                                 reinterpret_cast<uint8_t*>(t.text.data())};
  return ssl_parse_and_store_psktable(&table, kTableName);
}

// Stored size of a table of well-formed lines: the header and 4 + L + K bytes per entry.
size_t expected_table_size(const PskText& t) {
  return 4 + t.entries * (4 + identity_of(0).size() + kBenchKeyLength);
}

void BM_ParseStore(benchmark::State& state, size_t text_size) {
  PskText t = psk_text_of_size(text_size);
  for (auto _ : state) {
    if (parse(t) != 0) {
      state.SkipWithError("ssl_parse_and_store_psktable failed");
      break;
    }
  }
  if (last_stored_table_size() != expected_table_size(t)) {
    state.SkipWithError("unexpected table size");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * t.text.size()));
  state.counters["entries"] = static_cast<double>(t.entries);
}

void BM_HexBaseline(benchmark::State& state, size_t text_size) {
  const PskText t = psk_text_of_size(text_size);
  for (auto _ : state) {
    long len = 0;
    unsigned char* bytes = OPENSSL_hexstr2buf(t.digits.c_str(), &len);
    if (bytes == nullptr) {
      state.SkipWithError("OPENSSL_hexstr2buf failed");
      break;
    }
    benchmark::DoNotOptimize(bytes);
    OPENSSL_free(bytes);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * t.digits.size()));
}

// One parse of a 1 MiB text with the heap counted: peak bytes live against the allowance of
// one work buffer of twice the text plus 8 bytes.
void BM_ParsePeakHeap(benchmark::State& state) {
  PskText t = psk_text_of_size(size_t{1} << 20);
  size_t peak = 0;
  for (auto _ : state) {
    heap_count_start();
    const int32_t rc = parse(t);
    peak = heap_count_stop();
    if (rc != 0) {
      state.SkipWithError("ssl_parse_and_store_psktable failed");
      break;
    }
  }
  state.counters["text_bytes"] = static_cast<double>(t.text.size());
  state.counters["peak_bytes"] = static_cast<double>(peak);
  state.counters["allowance_bytes"] = static_cast<double>(2 * t.text.size() + 8);
}

const bool kRegistered = [] {
  const std::pair<const char*, size_t> sizes[] = {
      {"1KiB", 1024}, {"64KiB", 64 * 1024}, {"1MiB", 1024 * 1024}};
  for (const auto& [label, size] : sizes) {
    const std::string stem = std::string("p3_psk_parse/") + label;
    benchmark::RegisterBenchmark((stem + "/store").c_str(), BM_ParseStore, size)->UseRealTime();
    benchmark::RegisterBenchmark((stem + "/baseline").c_str(), BM_HexBaseline, size)->UseRealTime();
  }
  benchmark::RegisterBenchmark("p7_psk_parse_heap/1MiB/store", BM_ParsePeakHeap)->Iterations(3);
  return true;
}();

}  // namespace
}  // namespace kora::bench
