// The table of SSL objects: records, the global lock, lookups, and object create/free.
#include <glib.h>
#include <malloc.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <cstring>

#include "ivra_lock.h"
#include "ossl_ptr.h"
#include "ssl_psk_table.h"
#include "ssl_util.h"
#include "ssl_util_internal.h"
#include "ssl_util_log.h"

extern "C" {
gbl_ssl_ctx_t g_ssl_ctxt[SSL_MAX_OBJ];
ivra_mutex_t ssl_mutex = IVRA_MUTEX_INITIALIZER;
}

namespace kora::util {
namespace {

Slot g_slots[SSL_MAX_OBJ];
uint32_t g_last_handle = 0;  // changed under ssl_mutex only

// A handle not in use, never 0. Handles are not reused soon, so a stale handle of a freed
// object does not reach the object that took its slot. Called under ssl_mutex.
uint32_t next_handle() {
  for (;;) {
    ++g_last_handle;
    if (g_last_handle != 0 && find_slot(g_last_handle) < 0) {
      return g_last_handle;
    }
  }
}

SslCtxPtr new_context(ssl_obj_role_t role) {
  SslCtxPtr ctx(SSL_CTX_new(role == SSL_OBJ_ROLE_SERVER ? TLS_server_method() : TLS_client_method()));
  if (!ctx) {
    UTIL_LOG_ERROR("ssl_obj_create: SSL_CTX_new failed\n");
    log_ssl_internal_error_impl(__func__, __LINE__);
    return nullptr;
  }
  if (SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION) != 1) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return nullptr;
  }
  // A client checks its server unless told otherwise; a server asks for no client certificate.
  SSL_CTX_set_verify(ctx.get(), role == SSL_OBJ_ROLE_CLIENT ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
  return ctx;
}

}  // namespace

Slot& slot_at(int index) { return g_slots[index]; }

int find_slot(ssl_obj_hdl_t hdl) {
  if (hdl == 0) {
    return -1;
  }
  for (int i = 0; i < SSL_MAX_OBJ; ++i) {
    if (g_slots[i].handle.load(std::memory_order_acquire) == hdl) {
      return i;
    }
  }
  return -1;
}

SlotLock::SlotLock(ssl_obj_hdl_t hdl, const char* call) : lock_(&ssl_mutex), index_(find_slot(hdl)) {
  if (index_ < 0) {
    lock_.unlock();
    UTIL_LOG_ERROR("%s: unknown handle %u\n", call, hdl);
  }
}

int create(ssl_obj_role_t role, ssl_obj_hdl_t* hdl) {
  if (hdl == nullptr || (role != SSL_OBJ_ROLE_CLIENT && role != SSL_OBJ_ROLE_SERVER)) {
    UTIL_LOG_ERROR("ssl_obj_create: invalid role or null handle pointer\n");
    return SSL_UTIL_ERR_INVALID;
  }
  SslCtxPtr ctx = new_context(role);
  if (!ctx) {
    return SSL_UTIL_ERR_FAILED;
  }
  IvraLock lock(&ssl_mutex);
  int index = -1;
  for (int i = 0; i < SSL_MAX_OBJ; ++i) {
    if (g_slots[i].handle.load(std::memory_order_relaxed) == 0) {
      index = i;
      break;
    }
  }
  if (index < 0) {
    lock.unlock();
    UTIL_LOG_ERROR("ssl_obj_create: all %d SSL objects are in use\n", SSL_MAX_OBJ);
    return SSL_UTIL_ERR_NO_RESOURCE;
  }
  const uint32_t handle = next_handle();
  gbl_ssl_ctx_t& rec = g_ssl_ctxt[index];
  std::memset(&rec, 0, sizeof rec);
  rec.obj_hndl = handle;
  rec.openssl_obj_hndl = static_cast<uint32_t>(index) + 1;  // names the slot's private context
  Slot& slot = g_slots[index];
  slot.role = role;
  slot.server_name[0] = '\0';
  slot.psk_identity[0] = '\0';
  slot.peer_alert[0] = '\0';
  slot.ssl.store(nullptr, std::memory_order_relaxed);
  slot.ctx.store(ctx.release(), std::memory_order_relaxed);  // owned by the slot until free
  slot.handle.store(handle, std::memory_order_release);
  *hdl = handle;
  return 0;
}

int destroy(ssl_obj_hdl_t hdl) {
  const SlotLock lock(hdl, "ssl_obj_free");
  if (!lock.found()) {
    return SSL_UTIL_ERR_INVALID;
  }
  const int index = lock.index();
  Slot& slot = g_slots[index];
  slot.handle.store(0, std::memory_order_release);
  SslPtr ssl(slot.ssl.exchange(nullptr));
  SslCtxPtr ctx(slot.ctx.exchange(nullptr));
  // The device-identity certificate was handed to the context without an ex-data free
  // function; the object owns it from then on.
  X509_free(static_cast<X509*>(SSL_CTX_get_ex_data(ctx.get(), SSL_DI_CERT_EX_DATA_INDEX)));
  (void)SSL_CTX_set_ex_data(ctx.get(), SSL_DI_CERT_EX_DATA_INDEX, nullptr);
  ssl.reset();
  ctx.reset();
  gbl_ssl_ctx_t& rec = g_ssl_ctxt[index];
  // The PSK table belongs to the record and holds keys.
  kora_psk_table_free(rec.psk_identify_key);
  std::memset(&rec, 0, sizeof rec);
  return 0;
}

}  // namespace kora::util

extern "C" {

SSL_CTX* ssl_get_obj_context(ssl_obj_hdl_t hdl) {
  const int index = kora::util::find_slot(hdl);
  return index < 0 ? nullptr : kora::util::slot_at(index).ctx.load(std::memory_order_acquire);
}

int utility_get_ssl_ctxt(SSL_CTX* ctx, int* index) {
  if (ctx == nullptr || index == nullptr) {
    return -1;
  }
  for (int i = 0; i < SSL_MAX_OBJ; ++i) {
    if (kora::util::slot_at(i).ctx.load(std::memory_order_acquire) == ctx) {
      *index = i;
      return 0;
    }
  }
  return -1;
}

int SSL_set_cert_info(SSL_CTX* ctx, const char* name) {
  int index = -1;
  if (name == nullptr || utility_get_ssl_ctxt(ctx, &index) != 0) {
    UTIL_LOG_ERROR("SSL_set_cert_info: no SSL object for the context or null name\n");
    return SSL_UTIL_ERR_FAILED;
  }
  (void)g_strlcpy(g_ssl_ctxt[index].cert, name, sizeof g_ssl_ctxt[index].cert);
  kora::util::attach_stored_chain(index, ctx, name);
  return 0;
}

int ssl_obj_create(ssl_obj_role_t role, ssl_obj_hdl_t* hdl) { return kora::util::create(role, hdl); }

int ssl_obj_free(ssl_obj_hdl_t hdl) { return kora::util::destroy(hdl); }

}  // extern "C"
