// Private state of the object layer: the OpenSSL pointers of each slot of g_ssl_ctxt. The
// records hold 32-bit fields only, which cannot carry a pointer on a 64-bit host.
//
// Lookups read these without ssl_mutex: the store's loaders call them while the dispatcher
// holds the lock, and OpenSSL's PSK callback calls them during a handshake with no lock at
// all. Slots are therefore atomics; the table is changed (create, free) under ssl_mutex.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>

#include "ivra_lock.h"
#include "secure_bytes.h"
#include "ssl_store.h"
#include "ssl_util.h"

namespace kora::util {

struct Slot {
  std::atomic<uint32_t> handle{0};  // 0 while the slot is free
  std::atomic<SSL_CTX*> ctx{nullptr};
  std::atomic<SSL*> ssl{nullptr};  // the open connection, if any
  ssl_obj_role_t role = SSL_OBJ_ROLE_CLIENT;
  char server_name[256] = {};   // a client's SNI and expected host name or address; "" for none
  char psk_identity[256] = {};  // a client's chosen PSK table entry; "" lets the server's hint choose
  char peer_alert[64] = {};     // the last alert the peer sent on the connection, "" for none
};

// Reads and unseals the stored file at `path` into *out (whatever the store's read call hands
// out, on failure too); the call's status.
inline int read_stored_file(const char* path, SecureBytes* out) {
  void* data = nullptr;
  size_t size = 0;
  const int status = ssl_store_cert_read_decrypt_from_file(path, &data, &size);
  *out = SecureBytes::adopt(data, size);
  return status;
}

// The slot of each record of g_ssl_ctxt, same index.
Slot& slot_at(int index);

// Index of the slot holding `hdl`, or -1.
int find_slot(ssl_obj_hdl_t hdl);

// ssl_mutex held over the slot of a handle. When the handle names no object, the lock is
// released again and "<call>: unknown handle <hdl>" logged (after the release): found() is
// false and the caller returns SSL_UTIL_ERR_INVALID.
class SlotLock {
 public:
  SlotLock(ssl_obj_hdl_t hdl, const char* call);
  bool found() const { return index_ >= 0; }
  int index() const { return index_; }
  // Releases before the scope ends (a handshake, or a free, runs without the lock).
  void unlock() { lock_.unlock(); }

 private:
  IvraLock lock_;
  int index_;
};

// Client side, under ssl_mutex: hands the session marked in the record's `sess` to a new
// connection, unless its files are missing or it has expired.
void offer_saved_session(int index, SSL* ssl);

// Under ssl_mutex, when a credential `name` was loaded on the context of slot `index`: adds the
// intermediates stored after the leaf in its certificate file as the chain of the certificate.
void attach_stored_chain(int index, SSL_CTX* ctx, const char* name);

}  // namespace kora::util
