// The PSK client callback walking a stored table to its last entry, next to a whole TLS 1.2
// PSK handshake; and a handshake served from a stored table next to one served from memory.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "bench_psk_text.h"
#include "bench_support.h"
#include "kora_net_ssl.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace kora::bench {
namespace {

// An SSL object of the object layer with a stored table of `entries` lines loaded on it.
struct PskObject {
  ssl_obj_hdl_t hdl = 0;
  SSL_CTX* ctx = nullptr;
  std::string last_identity;
};

const PskObject& psk_object(size_t entries) {
  static std::map<size_t, PskObject> objects;
  auto found = objects.find(entries);
  if (found != objects.end()) {
    return found->second;
  }
  prepare_store();
  PskText text = psk_text_with_entries(entries);
  const std::string name = "psk" + std::to_string(entries);
  kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(text.text.size()),
                                 reinterpret_cast<uint8_t*>(text.text.data())};
  PskObject obj;
  obj.last_identity = identity_of(entries - 1);
  if (ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>(name.c_str())) != 0 ||
      ssl_obj_create(SSL_OBJ_ROLE_CLIENT, &obj.hdl) != 0 ||
      SSL_cert_load(obj.hdl, KORA_NET_SSL_PSK_TABLE_E, name.c_str()) != 0) {
    std::fprintf(stderr, "cannot store and load the %zu-entry PSK table\n", entries);
    std::abort();
  }
  // The object lives until the program ends, like a connection object of the service.
  obj.ctx = ssl_get_obj_context(obj.hdl);
  restrict_to_psk_tls12(obj.ctx);
  return objects.emplace(entries, obj).first->second;
}

void BM_LookupStore(benchmark::State& state, size_t entries) {
  const PskObject& obj = psk_object(entries);
  SslPtr ssl(SSL_new(obj.ctx));
  // OpenSSL's own buffers are zero-filled and one byte larger than the room it declares.
  char identity[PSK_MAX_IDENTITY_LEN + 1] = {};
  unsigned char psk[PSK_MAX_PSK_LEN + 1] = {};
  for (auto _ : state) {
    const unsigned int n = psk_client_cb(ssl.get(), obj.last_identity.c_str(), identity, PSK_MAX_IDENTITY_LEN,
                                         psk, PSK_MAX_PSK_LEN);
    benchmark::DoNotOptimize(n);
    if (n != kBenchKeyLength) {
      state.SkipWithError("psk_client_cb chose no entry");
      break;
    }
  }
}

void handshake_loop(benchmark::State& state, SSL_CTX* client, SSL_CTX* server) {
  for (auto _ : state) {
    if (!run_handshake(client, server)) {
      state.SkipWithError("handshake failed");
      break;
    }
  }
}

void BM_HandshakeMemory(benchmark::State& state, size_t entries) {
  const std::string identity = identity_of(entries - 1);
  SslCtxPtr server = make_psk_server_ctx(identity);
  SslCtxPtr client = make_memory_psk_client_ctx(identity);
  handshake_loop(state, client.get(), server.get());
}

void BM_HandshakeStore(benchmark::State& state, size_t entries) {
  const PskObject& obj = psk_object(entries);
  SslCtxPtr server = make_psk_server_ctx(obj.last_identity);
  handshake_loop(state, obj.ctx, server.get());
}

const bool kRegistered = [] {
  for (size_t entries : {1, 100, 1000, 10000}) {
    const std::string name = "p4_psk_lookup/last_of_" + std::to_string(entries) + "/store";
    benchmark::RegisterBenchmark(name.c_str(), BM_LookupStore, entries)->UseRealTime();
  }
  benchmark::RegisterBenchmark("p4_psk_lookup/handshake/baseline", BM_HandshakeMemory, size_t{1})
      ->UseRealTime();
  for (size_t entries : {1, 1000}) {
    const std::string stem = "p8_psk_handshake/last_of_" + std::to_string(entries);
    benchmark::RegisterBenchmark((stem + "/store").c_str(), BM_HandshakeStore, entries)->UseRealTime();
    benchmark::RegisterBenchmark((stem + "/baseline").c_str(), BM_HandshakeMemory, entries)->UseRealTime();
  }
  return true;
}();

}  // namespace
}  // namespace kora::bench
