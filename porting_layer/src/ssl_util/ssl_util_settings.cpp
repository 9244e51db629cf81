// Connection settings of an SSL object, applied to its context under ssl_mutex.
#include <glib.h>

#include <cstring>

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
    return -2;
  }
  ivra_mutex_lock(&ssl_mutex);
  const int index = find_slot(hdl);
  if (index < 0) {
    ivra_mutex_unlock(&ssl_mutex);
    UTIL_LOG_ERROR("ssl_obj_set_protocol_bounds: unknown handle %u\n", hdl);
    return -2;
  }
  SSL_CTX* ctx = slot_at(index).ctx.load();
  int status = 0;
  if (SSL_CTX_set_min_proto_version(ctx, min_version) != 1 ||
      SSL_CTX_set_max_proto_version(ctx, max_version) != 1) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    status = -1;
  }
  ivra_mutex_unlock(&ssl_mutex);
  return status;
}

int set_ciphers(ssl_obj_hdl_t hdl, const char* tls12_ciphers, const char* tls13_suites) {
  ivra_mutex_lock(&ssl_mutex);
  const int index = find_slot(hdl);
  if (index < 0) {
    ivra_mutex_unlock(&ssl_mutex);
    UTIL_LOG_ERROR("ssl_obj_set_ciphers: unknown handle %u\n", hdl);
    return -2;
  }
  SSL_CTX* ctx = slot_at(index).ctx.load();
  int status = 0;
  if (tls12_ciphers != nullptr && SSL_CTX_set_cipher_list(ctx, tls12_ciphers) != 1) {
    UTIL_LOG_ERROR("ssl_obj_set_ciphers: cipher list refused: %s\n", tls12_ciphers);
    log_ssl_internal_error_impl(__func__, __LINE__);
    status = -1;
  }
  if (status == 0 && tls13_suites != nullptr && SSL_CTX_set_ciphersuites(ctx, tls13_suites) != 1) {
    UTIL_LOG_ERROR("ssl_obj_set_ciphers: TLS 1.3 suites refused: %s\n", tls13_suites);
    log_ssl_internal_error_impl(__func__, __LINE__);
    status = -1;
  }
  ivra_mutex_unlock(&ssl_mutex);
  return status;
}

int set_verify(ssl_obj_hdl_t hdl, int mode) {
  if ((mode & ~kVerifyModeBits) != 0 || (mode != SSL_VERIFY_NONE && (mode & SSL_VERIFY_PEER) == 0)) {
    UTIL_LOG_ERROR("ssl_obj_set_verify: invalid verify mode 0x%x\n", mode);
    return -2;
  }
  ivra_mutex_lock(&ssl_mutex);
  const int index = find_slot(hdl);
  if (index < 0) {
    ivra_mutex_unlock(&ssl_mutex);
    UTIL_LOG_ERROR("ssl_obj_set_verify: unknown handle %u\n", hdl);
    return -2;
  }
  SSL_CTX_set_verify(slot_at(index).ctx.load(), mode, nullptr);
  ivra_mutex_unlock(&ssl_mutex);
  return 0;
}

int set_server_name(ssl_obj_hdl_t hdl, const char* name) {
  const char* value = name != nullptr ? name : "";
  if (std::strlen(value) >= sizeof Slot{}.server_name) {
    UTIL_LOG_ERROR("ssl_obj_set_server_name: server name too long\n");
    return -2;
  }
  ivra_mutex_lock(&ssl_mutex);
  const int index = find_slot(hdl);
  if (index < 0) {
    ivra_mutex_unlock(&ssl_mutex);
    UTIL_LOG_ERROR("ssl_obj_set_server_name: unknown handle %u\n", hdl);
    return -2;
  }
  (void)g_strlcpy(slot_at(index).server_name, value, sizeof slot_at(index).server_name);
  ivra_mutex_unlock(&ssl_mutex);
  return 0;
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
  return kora::util::set_server_name(hdl, name);
}

}  // extern "C"
