// rm: remove one credential (a certificate with its private key) and its session files.
#include <string>

#include "cli_report.h"
#include "cli_stored.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {

int run_rm(const Args& args) {
  Target t;
  if (const int rc = open_target(args, "rm", &t); rc != kExitOk) {
    return rc;
  }
  const Kind& kind = t.kind;
  const std::string& name = t.name;
  // A certificate name may hold only its key: the key that csr made, or what power lost while
  // a certificate was stored or removed left (either half may be left). Either half is
  // removed; the store's removal reports -1 when the key file is the one missing, after it has
  // removed the certificate.
  const bool certificate = kind.type == KORA_NET_SSL_CERTIFICATE_E;
  const bool key_present = certificate && stored_exists(name, kind.type, true);
  if (Is_SSL_cert_file_exist(name.c_str(), kind.type) != KORA_OK && !key_present) {
    return fail_not_stored(kind.title, name);
  }
  diag_clear();
  const int status = SSL_cert_store(name.c_str(), kind.type, nullptr, 0, false);
  if (status != KORA_OK && !(certificate && !key_present)) {
    if (certificate) {
      return fail_store("certificate '" + name + "' removed, but removing its private key failed", status);
    }
    return fail_store(std::string("removing ") + kind.title + " '" + name + "' failed", status);
  }
  std::printf("removed %s '%s'\n", kind.title, name.c_str());
  return kExitOk;
}

}  // namespace kora::cli
