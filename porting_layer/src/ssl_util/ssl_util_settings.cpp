// Connection settings of an SSL object, applied to its context under ssl_mutex.
#include <glib.h>

#include <cstring>

#include "ivra_lock.h"
#include "ossl_ptr.h"
#include "ssl_util.h"
#include "ssl_util_internal.h"
#include "ssl_util_log.h"

namespace kora::util {
namespace {

constexpr int kVerifyModeBits = SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT | SSL_VERIFY_CLIENT_ONCE;

bool known_version(int version) {
  return version == 0 || version == TLS1_2_VERSION || version == TLS1_3_VERSION;
}

int set_protocol_bounds(ssl_obj_hdl_t hdl, int min_version, int max_version) {
  if (!known_version(min_version) || !known_version(max_version) ||
      (min_version != 0 && max_version != 0 && min_version > max_version)) {
    UTIL_LOG_ERROR("ssl_obj_set_protocol_bounds: unsupported bounds 0x%x..0x%x\n", min_version, max_version);
    return SSL_UTIL_ERR_INVALID;
  }
  const SlotLock lock(hdl, "ssl_obj_set_protocol_bounds");
  if (!lock.found()) {
    return SSL_UTIL_ERR_INVALID;
  }
  SSL_CTX* ctx = slot_at(lock.index()).ctx.load();
  if (SSL_CTX_set_min_proto_version(ctx, min_version) != 1 ||
      SSL_CTX_set_max_proto_version(ctx, max_version) != 1) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  return SSL_UTIL_OK;
}

// True when every name of a TLS 1.3 suite list is a suite OpenSSL knows. OpenSSL itself skips
// unknown names, so a typing error would silently leave fewer suites than asked for, or none.
bool suites_known(SSL_CTX* probe, const char* suites) {
  if (SSL_CTX_set_ciphersuites(probe, suites) != 1) {
    return false;
  }
  const STACK_OF(SSL_CIPHER)* applied = SSL_CTX_get_ciphers(probe);
  gchar** names = g_strsplit(suites, ":", -1);
  bool known = true;
  for (gchar** name = names; known && *name != nullptr; ++name) {
    bool found = **name == '\0';
    for (int i = 0; !found && i < sk_SSL_CIPHER_num(applied); ++i) {
      found = std::strcmp(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(applied, i)), *name) == 0;
    }
    known = found;
  }
  g_strfreev(names);
  return known;
}

int set_ciphers(ssl_obj_hdl_t hdl, const char* tls12_ciphers, const char* tls13_suites) {
  // Both values are tried on a scratch context first, so a refused one changes nothing.
  SslCtxPtr probe(SSL_CTX_new(TLS_method()));
  if (!probe) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  if (tls12_ciphers != nullptr && SSL_CTX_set_cipher_list(probe.get(), tls12_ciphers) != 1) {
    UTIL_LOG_ERROR("ssl_obj_set_ciphers: cipher list refused: %s\n", tls12_ciphers);
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  if (tls13_suites != nullptr && !suites_known(probe.get(), tls13_suites)) {
    UTIL_LOG_ERROR("ssl_obj_set_ciphers: TLS 1.3 suites refused: %s\n", tls13_suites);
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  const SlotLock lock(hdl, "ssl_obj_set_ciphers");
  if (!lock.found()) {
    return SSL_UTIL_ERR_INVALID;
  }
  SSL_CTX* ctx = slot_at(lock.index()).ctx.load();
  if ((tls12_ciphers != nullptr && SSL_CTX_set_cipher_list(ctx, tls12_ciphers) != 1) ||
      (tls13_suites != nullptr && SSL_CTX_set_ciphersuites(ctx, tls13_suites) != 1)) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  return SSL_UTIL_OK;
}

int set_verify(ssl_obj_hdl_t hdl, int mode) {
  if ((mode & ~kVerifyModeBits) != 0 || (mode != SSL_VERIFY_NONE && (mode & SSL_VERIFY_PEER) == 0)) {
    UTIL_LOG_ERROR("ssl_obj_set_verify: invalid verify mode 0x%x\n", mode);
    return SSL_UTIL_ERR_INVALID;
  }
  const SlotLock lock(hdl, "ssl_obj_set_verify");
  if (!lock.found()) {
    return SSL_UTIL_ERR_INVALID;
  }
  SSL_CTX_set_verify(slot_at(lock.index()).ctx.load(), mode, nullptr);
  return SSL_UTIL_OK;
}

// Copies `value` (null: "") into the slot field chosen by `field`; -2 when too long or unknown.
int set_slot_text(ssl_obj_hdl_t hdl, const char* value, char* (*field)(Slot&), size_t size,
                  const char* call) {
  const char* text = value != nullptr ? value : "";
  if (std::strlen(text) >= size) {
    UTIL_LOG_ERROR("%s: value too long\n", call);
    return SSL_UTIL_ERR_INVALID;
  }
  const SlotLock lock(hdl, call);
  if (!lock.found()) {
    return SSL_UTIL_ERR_INVALID;
  }
  (void)g_strlcpy(field(slot_at(lock.index())), text, size);
  return SSL_UTIL_OK;
}

}  // namespace
}  // namespace kora::util

extern "C" {

int ssl_obj_set_protocol_bounds(ssl_obj_hdl_t hdl, int min_version, int max_version) {
  return kora::util::set_protocol_bounds(hdl, min_version, max_version);
}

int ssl_obj_set_ciphers(ssl_obj_hdl_t hdl, const char* tls12_ciphers, const char* tls13_suites) {
  return kora::util::set_ciphers(hdl, tls12_ciphers, tls13_suites);
}

int ssl_obj_set_verify(ssl_obj_hdl_t hdl, int mode) { return kora::util::set_verify(hdl, mode); }

int ssl_obj_set_server_name(ssl_obj_hdl_t hdl, const char* name) {
  return kora::util::set_slot_text(
      hdl, name, [](kora::util::Slot& s) { return s.server_name; }, sizeof kora::util::Slot{}.server_name,
      "ssl_obj_set_server_name");
}

int ssl_obj_set_psk_identity(ssl_obj_hdl_t hdl, const char* identity) {
  return kora::util::set_slot_text(
      hdl, identity, [](kora::util::Slot& s) { return s.psk_identity; },
      sizeof kora::util::Slot{}.psk_identity, "ssl_obj_set_psk_identity");
}

}  // extern "C"
