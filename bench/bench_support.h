// Shared set-up of the store benchmarks: an initialised store, plain files for the
// baselines, and TLS 1.2 PSK handshakes over a memory BIO pair.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <string>

#include "ossl_ptr.h"

namespace kora::bench {

inline constexpr const char* kPlainDir = "/data/plain/";
inline constexpr const char* kPskCipher = "PSK-AES128-GCM-SHA256";

// Runs ssl_store_init once per process (aborts the program when it fails).
void prepare_store();

// Writes bytes to a plain file (for the OpenSSL baselines); aborts on failure.
void write_plain(const std::string& path, const void* bytes, size_t size);

// Stores bytes under a name through the store's public call; aborts on failure.
void store_credential(const std::string& name, int kind, const std::string& bytes, bool priv_key);

// A TLS 1.2 PSK server context that offers `hint` and answers every identity with key_of().
SslCtxPtr make_psk_server_ctx(const std::string& hint);

// Limits a client context to TLS 1.2 and the PSK cipher of the benchmarks.
void restrict_to_psk_tls12(SSL_CTX* ctx);

// A client context whose PSK callback hands out one identity and its key from memory.
SslCtxPtr make_memory_psk_client_ctx(const std::string& identity);

// One full handshake between fresh SSL objects of the two contexts over a BIO pair.
// True when both sides finished.
bool run_handshake(SSL_CTX* client_ctx, SSL_CTX* server_ctx);

}  // namespace kora::bench
