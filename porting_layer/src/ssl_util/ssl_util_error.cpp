// Reporting of OpenSSL's per-thread error queue.
#include <openssl/err.h>

#include "ssl_util.h"
#include "ssl_util_log.h"

extern "C" void log_ssl_internal_error_impl(const char* func, int line) {
  const char* caller = func != nullptr ? func : "?";
  const char* file = nullptr;
  int err_line = 0;
  const char* data = nullptr;
  int flags = 0;
  unsigned long code;
  while ((code = ERR_get_error_all(&file, &err_line, nullptr, &data, &flags)) != 0) {
    char reason[256];
    ERR_error_string_n(code, reason, sizeof reason);
    const char* extra = (flags & ERR_TXT_STRING) != 0 && data != nullptr ? data : "";
    UTIL_LOG_ERROR("%s:%d: OpenSSL error %s (%s:%d) %s\n", caller, line, reason, file != nullptr ? file : "?",
                   err_line, extra);
  }
}
