// Saved TLS sessions, bound to the credential name of their object:
// "<name>_<n>.session" holds the DER session sealed like every credential file (it carries
// the session's master secret), "<name>_<n>.timestamp" a plain session_store_t.
// The store removes both when the credential is removed, by that naming.
#include <fcntl.h>
#include <glib.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "ivra_lock.h"
#include "ossl_ptr.h"
#include "ssl_store.h"
#include "ssl_store_layout.h"
#include "ssl_util.h"
#include "ssl_util_internal.h"
#include "ssl_util_log.h"
#include "write_all.h"

namespace kora::util {
namespace {

constexpr char kSessionSuffix[] = KORA_STORE_SESSION_SUFFIX;
constexpr char kTimestampSuffix[] = KORA_STORE_TIMESTAMP_SUFFIX;
constexpr int kMaxSessionNumber = 9999;
constexpr long kMaxSessionFileSize = 64L * 1024;

// Writes a whole file, mode 0600. 0 on success, -1 on error.
int write_file(const char* path, const void* data, size_t size) {
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_TRUNC, 0600);
  if (fd < 0) {
    return SSL_UTIL_ERR_FAILED;
  }
  const bool written = write_all(fd, data, size);
  const bool closed = ::close(fd) == 0;
  return written && closed ? SSL_UTIL_OK : SSL_UTIL_ERR_FAILED;
}

// The path of "<name>_<n><suffix>" in the sessions directory, from the store's resolver, into
// out; false when it does not fit (the resolver takes file names of up to 63 characters).
bool session_path(char* out, size_t len, const char* name, int n, const char* suffix) {
  char file_name[256];
  const int written = std::snprintf(file_name, sizeof file_name, "%s_%d%s", name, n, suffix);
  return written > 0 && static_cast<size_t>(written) < sizeof file_name &&
         SSL_session_get_abs_path(file_name, out, static_cast<int>(len)) == KORA_OK;
}

// The .timestamp path of a .session path; false when `session` does not end in ".session".
bool timestamp_path_of(const char* session, char* out, size_t len) {
  const size_t n = std::strlen(session);
  const size_t suffix = sizeof kSessionSuffix - 1;
  if (n < suffix || std::strcmp(session + n - suffix, kSessionSuffix) != 0) {
    return false;
  }
  const int written =
      std::snprintf(out, len, "%.*s%s", static_cast<int>(n - suffix), session, kTimestampSuffix);
  return written > 0 && static_cast<size_t>(written) < len;
}

// Reads a whole small file; false when missing, unreadable or too large.
bool read_file(const char* path, std::vector<uint8_t>* out) {
  FILE* f = std::fopen(path, "rb");
  if (f == nullptr) {
    return false;
  }
  bool ok = std::fseek(f, 0, SEEK_END) == 0;
  const long size = ok ? std::ftell(f) : -1;
  ok = ok && size > 0 && size <= kMaxSessionFileSize && std::fseek(f, 0, SEEK_SET) == 0;
  if (ok) {
    out->resize(static_cast<size_t>(size));
    ok = std::fread(out->data(), 1, out->size(), f) == out->size();
  }
  (void)std::fclose(f);
  return ok;
}

session_store_t describe(const SSL_SESSION* session) {
  session_store_t record{};
  const SSL_CIPHER* cipher = SSL_SESSION_get0_cipher(session);
  (void)g_strlcpy(record.ciphersuite, cipher != nullptr ? SSL_CIPHER_get_name(cipher) : "",
                  sizeof record.ciphersuite);
  record.protocol = static_cast<uint16_t>(SSL_SESSION_get_protocol_version(session));
  record.lifetime = static_cast<time_t>(SSL_SESSION_get_timeout(session));
  record.session_timestamp = static_cast<time_t>(SSL_SESSION_get_time(session));
  return record;
}

// Writes the two files under the first free number. Called under ssl_mutex.
int store_files(const char* name, const SSL_SESSION* session, const session_store_t& record, char* chosen,
                size_t chosen_len) {
  const int der_len = i2d_SSL_SESSION(session, nullptr);
  if (der_len <= 0) {
    log_ssl_internal_error_impl(__func__, __LINE__);
    return SSL_UTIL_ERR_FAILED;
  }
  SecureVector der(static_cast<size_t>(der_len));  // carries the master secret
  uint8_t* cursor = der.data();
  (void)i2d_SSL_SESSION(session, &cursor);

  int status = SSL_UTIL_ERR_FAILED;
  char timestamp[512];
  for (int n = 1; n <= kMaxSessionNumber; ++n) {
    if (!session_path(chosen, chosen_len, name, n, kSessionSuffix) ||
        !session_path(timestamp, sizeof timestamp, name, n, kTimestampSuffix)) {
      UTIL_LOG_ERROR("ssl_session_save: session path too long for %s\n", name);
      break;
    }
    if (::access(timestamp, F_OK) == 0 || ::access(chosen, F_OK) == 0) {
      continue;  // either file, a stray one too, keeps its number taken
    }
    const int written = ssl_store_cert_write_encrypt_to_file(chosen, der.data(), der.size());
    if (written == 0 && write_file(timestamp, &record, sizeof record) == 0) {
      status = 0;
    } else {
      UTIL_LOG_ERROR("ssl_session_save: cannot write session files for %s (errno %d)\n", name, errno);
      (void)::unlink(chosen);
      (void)::unlink(timestamp);
    }
    break;
  }
  return status;
}

int save(ssl_obj_hdl_t hdl, char* path, size_t path_len) {
  IvraLock lock(&ssl_mutex);
  const int index = find_slot(hdl);
  SSL* ssl = index < 0 ? nullptr : slot_at(index).ssl.load();
  if (ssl == nullptr || g_ssl_ctxt[index].cert[0] == '\0') {
    lock.unlock();
    UTIL_LOG_ERROR("ssl_session_save: no connection or no credential name on handle %u\n", hdl);
    return SSL_UTIL_ERR_INVALID;
  }
  gbl_ssl_ctx_t& rec = g_ssl_ctxt[index];
  SslSessionPtr session(SSL_get1_session(ssl));
  if (!session || SSL_SESSION_is_resumable(session.get()) != 1) {
    lock.unlock();
    UTIL_LOG_ERROR("ssl_session_save: no resumable session on handle %u\n", hdl);
    return SSL_UTIL_ERR_FAILED;
  }
  const session_store_t record = describe(session.get());
  char chosen[sizeof rec.sess];
  const int status = store_files(rec.cert, session.get(), record, chosen, sizeof chosen);
  if (status == 0) {
    (void)g_strlcpy(rec.sess, chosen, sizeof rec.sess);
    (void)g_strlcpy(rec.ciphersuite, record.ciphersuite, sizeof rec.ciphersuite);
    rec.protocol = record.protocol;
    rec.life_time = record.lifetime;
    rec.session_timestamp = record.session_timestamp;
    if (path != nullptr && path_len > 0) {
      (void)g_strlcpy(path, chosen, path_len);
    }
  }
  lock.unlock();  // the session reference is dropped without the lock
  return status;
}

int set_resume(ssl_obj_hdl_t hdl, const char* session_file) {
  const char* value = session_file != nullptr ? session_file : "";
  if (std::strlen(value) >= sizeof gbl_ssl_ctx_t{}.sess) {
    UTIL_LOG_ERROR("ssl_session_set_resume: session path too long\n");
    return SSL_UTIL_ERR_INVALID;
  }
  const SlotLock lock(hdl, "ssl_session_set_resume");
  if (!lock.found()) {
    return SSL_UTIL_ERR_INVALID;
  }
  (void)g_strlcpy(g_ssl_ctxt[lock.index()].sess, value, sizeof gbl_ssl_ctx_t{}.sess);
  return SSL_UTIL_OK;
}

}  // namespace

void offer_saved_session(int index, SSL* ssl) {
  const char* session_file = g_ssl_ctxt[index].sess;
  if (session_file[0] == '\0') {
    return;
  }
  char timestamp[sizeof gbl_ssl_ctx_t{}.sess + 2];  // the longest path, ".session" made ".timestamp"
  std::vector<uint8_t> bytes;
  if (!timestamp_path_of(session_file, timestamp, sizeof timestamp) || !read_file(timestamp, &bytes) ||
      bytes.size() != sizeof(session_store_t)) {
    UTIL_LOG_HIGH("Saved session not usable, full handshake\n");
    return;
  }
  session_store_t record;
  std::memcpy(&record, bytes.data(), sizeof record);
  if (record.session_timestamp + record.lifetime < std::time(nullptr)) {
    UTIL_LOG_HIGH("Saved session expired, full handshake\n");
    return;
  }
  SecureBytes plain;  // the session's master secret
  if (read_stored_file(session_file, &plain) != 0 ||
      plain.size() > static_cast<size_t>(kMaxSessionFileSize)) {
    UTIL_LOG_HIGH("Saved session not usable, full handshake\n");
    return;
  }
  const uint8_t* cursor = plain.data();
  SslSessionPtr session(d2i_SSL_SESSION(nullptr, &cursor, static_cast<long>(plain.size())));
  if (!session || SSL_set_session(ssl, session.get()) != 1) {
    UTIL_LOG_ERROR("Saved session could not be decoded\n");
    log_ssl_internal_error_impl(__func__, __LINE__);
  }
}

}  // namespace kora::util

extern "C" {

int ssl_session_save(ssl_obj_hdl_t hdl, char* path, size_t path_len) {
  return kora::util::save(hdl, path, path_len);
}

int ssl_session_set_resume(ssl_obj_hdl_t hdl, const char* session_path) {
  return kora::util::set_resume(hdl, session_path);
}

}  // extern "C"
