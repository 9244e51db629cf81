// Loading a stored certificate with its key, and a stored CA list, onto a fresh SSL object,
// next to OpenSSL loading the same plain files onto a fresh context. Only the load itself
// is timed on both sides: making and freeing the object or context stays outside the clock.
#include <benchmark/benchmark.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "bench_support.h"
#include "kora_certgen.h"
#include "kora_net_ssl.h"
#include "ssl_util.h"

namespace kora::bench {
namespace {

using Clock = std::chrono::steady_clock;

struct CertCase {
  const char* label;  // also the stored name and the plain files' stem
  certgen::KeyType key_type;
  bool der;
};

constexpr CertCase kCertCases[] = {
    {"ec_p256_pem", certgen::KeyType::kEcP256, false},
    {"ec_p256_der", certgen::KeyType::kEcP256, true},
    {"rsa2048_pem", certgen::KeyType::kRsa2048, false},
    {"rsa2048_der", certgen::KeyType::kRsa2048, true},
};

constexpr size_t kCaListSize = 100;
constexpr const char* kCaListName = "ca100";

std::string bytes_of(const std::vector<uint8_t>& v) { return std::string(v.begin(), v.end()); }

std::string plain_path(const std::string& stem, const char* ext) { return kPlainDir + stem + ext; }

// Stores the credential of one case and writes the same bytes as plain files, once.
void prepare_cert_case(const CertCase& c) {
  static std::set<std::string> done;
  if (!done.insert(c.label).second) {
    return;
  }
  prepare_store();
  certgen::CertSpec spec;
  spec.subject = {{"CN", std::string("bench-") + c.label}};
  spec.key_type = c.key_type;
  const certgen::Credential cred = certgen::make_self_signed(spec);
  const std::string cert = c.der ? bytes_of(cred.cert_der()) : cred.cert_pem();
  const std::string key = c.der ? bytes_of(cred.key_der()) : cred.key_pem();
  store_credential(c.label, KORA_NET_SSL_CERTIFICATE_E, cert, false);
  store_credential(c.label, KORA_NET_SSL_CERTIFICATE_E, key, true);
  write_plain(plain_path(c.label, ".crt"), cert.data(), cert.size());
  write_plain(plain_path(c.label, ".key"), key.data(), key.size());
}

void prepare_ca_list() {
  static const bool ready = [] {
    prepare_store();
    std::string list;
    for (size_t i = 0; i < kCaListSize; ++i) {
      certgen::CertSpec spec;
      spec.subject = {{"CN", "Bench Root CA " + std::to_string(i)}, {"O", "Kora Bench"}};
      spec.is_ca = true;
      list += certgen::make_self_signed(spec).cert_pem();
    }
    store_credential(kCaListName, KORA_NET_SSL_CA_LIST_E, list, false);
    write_plain(plain_path(kCaListName, ".pem"), list.data(), list.size());
    return true;
  }();
  (void)ready;
}

double seconds_between(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// The store: SSL_cert_load of `kind` and `name` onto a new client object per iteration.
void store_load(benchmark::State& state, kora_Net_SSL_Cert_Type_t kind, const std::string& name) {
  for (auto _ : state) {
    ssl_obj_hdl_t hdl = 0;
    if (ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &hdl) != 0) {
      state.SkipWithError("ssl_obj_create failed");
      break;
    }
    const auto t0 = Clock::now();
    const int rc = SSL_cert_load(hdl, kind, name.c_str());
    const auto t1 = Clock::now();
    ssl_obj_free(hdl);
    if (rc != 0) {
      state.SkipWithError("SSL_cert_load failed");
      break;
    }
    state.SetIterationTime(seconds_between(t0, t1));
  }
}

void BM_CertLoadStore(benchmark::State& state, const CertCase& c) {
  prepare_cert_case(c);
  store_load(state, KORA_NET_SSL_CERTIFICATE_E, c.label);
}

// OpenSSL: `load` (true when it succeeded) onto a new client context per iteration.
template <class Load>
void baseline_load(benchmark::State& state, const char* error, const Load& load) {
  for (auto _ : state) {
    SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
    const auto t0 = Clock::now();
    const bool ok = load(ctx.get());
    const auto t1 = Clock::now();
    ctx.reset();
    if (!ok) {
      state.SkipWithError(error);
      break;
    }
    state.SetIterationTime(seconds_between(t0, t1));
  }
}

void BM_CertLoadBaseline(benchmark::State& state, const CertCase& c) {
  prepare_cert_case(c);
  const std::string cert = plain_path(c.label, ".crt");
  const std::string key = plain_path(c.label, ".key");
  const int type = c.der ? SSL_FILETYPE_ASN1 : SSL_FILETYPE_PEM;
  baseline_load(state, "OpenSSL file load failed", [&](SSL_CTX* ctx) {
    return SSL_CTX_use_certificate_file(ctx, cert.c_str(), type) == 1 &&
           SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), type) == 1;
  });
}

void BM_CaListStore(benchmark::State& state) {
  prepare_ca_list();
  store_load(state, KORA_NET_SSL_CA_LIST_E, kCaListName);
}

void BM_CaListBaseline(benchmark::State& state) {
  prepare_ca_list();
  const std::string file = plain_path(kCaListName, ".pem");
  baseline_load(state, "SSL_CTX_load_verify_locations failed",
                [&](SSL_CTX* ctx) { return SSL_CTX_load_verify_locations(ctx, file.c_str(), nullptr) == 1; });
}

const bool kRegistered = [] {
  for (const CertCase& c : kCertCases) {
    const std::string stem = std::string("p1_cert_load/") + c.label;
    benchmark::RegisterBenchmark((stem + "/store").c_str(), BM_CertLoadStore, c)->UseManualTime();
    benchmark::RegisterBenchmark((stem + "/baseline").c_str(), BM_CertLoadBaseline, c)->UseManualTime();
  }
  benchmark::RegisterBenchmark("p2_ca_list_load/100_certs/store", BM_CaListStore)->UseManualTime();
  benchmark::RegisterBenchmark("p2_ca_list_load/100_certs/baseline", BM_CaListBaseline)->UseManualTime();
  return true;
}();

}  // namespace
}  // namespace kora::bench
