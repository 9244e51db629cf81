#include "bench_support.h"

#include <openssl/err.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench_psk_text.h"
#include "kora_net_ssl.h"
#include "ssl_store.h"

namespace kora::bench {
namespace {

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "benchmark set-up failed: %s\n", what.c_str());
  ERR_print_errors_fp(stderr);
  std::abort();
}

// What a memory-served client hands out: one identity and its key, kept with the context.
struct MemoryPsk {
  std::string identity;
  std::vector<uint8_t> key;
};

unsigned int memory_psk_client_cb(SSL* ssl, const char* /*hint*/, char* identity,
                                  unsigned int max_identity_len, unsigned char* psk,
                                  unsigned int max_psk_len) {
  const auto* mem = static_cast<const MemoryPsk*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
  if (mem->identity.size() > max_identity_len || mem->key.size() > max_psk_len) {
    return 0;
  }
  std::memcpy(identity, mem->identity.data(), mem->identity.size());
  identity[mem->identity.size()] = '\0';
  std::memcpy(psk, mem->key.data(), mem->key.size());
  return static_cast<unsigned int>(mem->key.size());
}

unsigned int psk_server_cb(SSL* /*ssl*/, const char* identity, unsigned char* psk, unsigned int max_psk_len) {
  const std::vector<uint8_t> key = key_of(identity);
  if (key.size() > max_psk_len) {
    return 0;
  }
  std::memcpy(psk, key.data(), key.size());
  return static_cast<unsigned int>(key.size());
}

}  // namespace

void prepare_store() {
  static const bool ready = [] {
    if (ssl_store_init() != 0) {
      die("ssl_store_init");
    }
    ::mkdir(kPlainDir, 0755);
    return true;
  }();
  (void)ready;
}

void write_plain(const std::string& path, const void* bytes, size_t size) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(bytes, 1, size, f) != size || std::fclose(f) != 0) {
    die("write " + path);
  }
}

void store_credential(const std::string& name, int kind, const std::string& bytes, bool priv_key) {
  if (SSL_cert_store(name.c_str(), static_cast<kora_Net_SSL_Cert_Type_t>(kind), bytes.data(),
                     static_cast<int>(bytes.size()), priv_key) != 0) {
    die("SSL_cert_store " + name);
  }
}

void restrict_to_psk_tls12(SSL_CTX* ctx) {
  if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_cipher_list(ctx, kPskCipher) != 1) {
    die("restrict_to_psk_tls12");
  }
}

SslCtxPtr make_psk_server_ctx(const std::string& hint) {
  SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()));
  if (!ctx) {
    die("SSL_CTX_new (server)");
  }
  restrict_to_psk_tls12(ctx.get());
  if (SSL_CTX_use_psk_identity_hint(ctx.get(), hint.c_str()) != 1) {
    die("SSL_CTX_use_psk_identity_hint");
  }
  SSL_CTX_set_psk_server_callback(ctx.get(), psk_server_cb);
  return ctx;
}

SslCtxPtr make_memory_psk_client_ctx(const std::string& identity) {
  SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
  if (!ctx) {
    die("SSL_CTX_new (client)");
  }
  restrict_to_psk_tls12(ctx.get());
  // intended: one small record per baseline context, kept for the life of the program.
  auto* mem = new MemoryPsk{identity, key_of(identity)};
  SSL_CTX_set_app_data(ctx.get(), mem);
  SSL_CTX_set_psk_client_callback(ctx.get(), memory_psk_client_cb);
  return ctx;
}

bool run_handshake(SSL_CTX* client_ctx, SSL_CTX* server_ctx) {
  SslPtr client(SSL_new(client_ctx));
  SslPtr server(SSL_new(server_ctx));
  BIO* client_io = nullptr;
  BIO* server_io = nullptr;
  if (!client || !server || BIO_new_bio_pair(&client_io, 0, &server_io, 0) != 1) {
    return false;
  }
  SSL_set_bio(client.get(), client_io, client_io);  // each SSL object owns its end
  SSL_set_bio(server.get(), server_io, server_io);
  SSL_set_connect_state(client.get());
  SSL_set_accept_state(server.get());

  bool client_done = false;
  bool server_done = false;
  for (int round = 0; round < 32 && !(client_done && server_done); ++round) {
    if (!client_done) {
      const int rc = SSL_do_handshake(client.get());
      client_done = rc == 1;
      if (rc != 1 && SSL_get_error(client.get(), rc) != SSL_ERROR_WANT_READ) {
        return false;
      }
    }
    if (!server_done) {
      const int rs = SSL_do_handshake(server.get());
      server_done = rs == 1;
      if (rs != 1 && SSL_get_error(server.get(), rs) != SSL_ERROR_WANT_READ) {
        return false;
      }
    }
  }
  return client_done && server_done;
}

}  // namespace kora::bench
