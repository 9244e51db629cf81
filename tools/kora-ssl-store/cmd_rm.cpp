// rm: remove one credential (a certificate with its private key) and its session files.
#include <sys/stat.h>

#include <string>

#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

// True when the certificate `name` has a private key file (lstat: a link is not followed).
bool key_file_present(const std::string& name) {
  char path[512] = {0};
  struct stat st {};
  return SSL_cert_get_abs_path(name.c_str(), KORA_NET_SSL_CERTIFICATE_E, path, sizeof(path), true) ==
             KORA_OK &&
         ::lstat(path, &st) == 0;
}

}  // namespace

int run_rm(const Args& args) {
  if (args.positional.size() != 2) {
    return usage_error("rm needs KIND and NAME");
  }
  Kind kind{};
  const std::string& name = args.positional[1];
  if (const std::string why = target_problem(args.positional[0], name, &kind); !why.empty()) {
    return usage_error(why);
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  // Power lost while a certificate was stored or removed can leave one of its two files: the
  // certificate without its key or the key alone. Either half is removed; the store's removal
  // reports -1 when the key file is the one missing, after it has removed the certificate.
  const bool certificate = kind.type == KORA_NET_SSL_CERTIFICATE_E;
  const bool key_present = certificate && key_file_present(name);
  if (Is_SSL_cert_file_exist(name.c_str(), kind.type) != KORA_OK && !key_present) {
    return fail(std::string("no ") + kind.title + " named '" + name + "' in the store");
  }
  diag_clear();
  const int status = SSL_cert_store(name.c_str(), kind.type, nullptr, 0, false);
  if (status != KORA_OK && !(certificate && !key_present)) {
    if (kind.type == KORA_NET_SSL_CERTIFICATE_E) {
      return fail_store("certificate '" + name + "' removed, but removing its private key failed", status);
    }
    return fail_store(std::string("removing ") + kind.title + " '" + name + "' failed", status);
  }
  std::printf("removed %s '%s'\n", kind.title, name.c_str());
  return kExitOk;
}

}  // namespace kora::cli
