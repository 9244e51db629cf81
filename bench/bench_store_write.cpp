// Storing a 2 KiB certificate (sealed, written whole, synced), next to writing the same
// plain bytes to a file followed by sync().
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "bench_support.h"
#include "kora_certgen.h"
#include "kora_net_ssl.h"

namespace kora::bench {
namespace {

constexpr size_t kCertSize = 2048;

// A PEM certificate of about 2 KiB: an RSA-2048 certificate with a list of DNS names, cut
// or padded with further names to exactly kCertSize bytes of PEM text.
const std::string& cert_2k() {
  static const std::string pem = [] {
    certgen::CertSpec spec;
    spec.subject = {{"CN", "bench-2k"}, {"O", "Kora Bench"}};
    spec.key_type = certgen::KeyType::kRsa2048;
    for (int i = 0; i < 24; ++i) {
      spec.alt_names.push_back({GEN_DNS, "node-" + std::to_string(i) + ".devices.example.net"});
    }
    std::string text = certgen::make_self_signed(spec).cert_pem();
    text.resize(kCertSize, '\n');
    return text;
  }();
  return pem;
}

void BM_StoreCert(benchmark::State& state) {
  prepare_store();
  const std::string& pem = cert_2k();
  for (auto _ : state) {
    if (SSL_cert_store("bench-2k", KORA_NET_SSL_CERTIFICATE_E, pem.data(), static_cast<int>(pem.size()),
                       false) != 0) {
      state.SkipWithError("SSL_cert_store failed");
      break;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pem.size()));
}

void BM_WriteAndSync(benchmark::State& state) {
  prepare_store();
  const std::string& pem = cert_2k();
  const std::string path = std::string(kPlainDir) + "bench-2k.crt";
  for (auto _ : state) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    const bool ok = f != nullptr && std::fwrite(pem.data(), 1, pem.size(), f) == pem.size();
    if (f == nullptr || std::fclose(f) != 0 || !ok) {
      state.SkipWithError("plain write failed");
      break;
    }
    sync();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pem.size()));
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("p6_store/cert_2KiB/store", BM_StoreCert)->UseRealTime();
  benchmark::RegisterBenchmark("p6_store/cert_2KiB/baseline", BM_WriteAndSync)->UseRealTime();
  return true;
}();

}  // namespace
}  // namespace kora::bench
