// rm: remove one credential (a certificate with its private key) and its session files.
#include <string>

#include "cli_files.h"
#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {

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
  if (const int rc = refuse_irregular_credential(kind.type, name); rc != kExitOk) {
    return rc;
  }
  if (Is_SSL_cert_file_exist(name.c_str(), kind.type) != KORA_OK) {
    return fail(std::string("no ") + kind.title + " named '" + name + "' in the store");
  }
  diag_clear();
  const int status = SSL_cert_store(name.c_str(), kind.type, nullptr, 0, false);
  if (status != KORA_OK) {
    if (kind.type == KORA_NET_SSL_CERTIFICATE_E) {
      return fail_store("certificate '" + name + "' removed, but removing its private key failed", status);
    }
    return fail_store(std::string("removing ") + kind.title + " '" + name + "' failed", status);
  }
  std::printf("removed %s '%s'\n", kind.title, name.c_str());
  return kExitOk;
}

}  // namespace kora::cli
