// der2pem: a DER certificate to PEM text, through the store's converter.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli_input.h"
#include "cli_output.h"
#include "cli_report.h"
#include "commands.h"
#include "kora_net_ssl.h"

namespace kora::cli {

int run_der2pem(const Args& args) {
  if (args.positional.empty() || args.positional.size() > 2) {
    return usage_error("der2pem needs IN and optionally OUT");
  }
  SecureVector der;
  std::string why;
  if (!read_input(args.positional[0], &der, &why)) {
    return fail(why);
  }
  uint8_t* pem = nullptr;
  int pem_size = 0;
  const int result = SSL_cert_der_2_pem(der.data(), static_cast<int>(der.size()), &pem, &pem_size);
  if (result == 0) {
    return fail(args.positional[0] + " is not a DER certificate (a PEM file needs no conversion)");
  }
  if (result != 1 || pem == nullptr || pem_size <= 0) {
    std::free(pem);
    return fail("converting " + args.positional[0] + " failed: result " + std::to_string(result));
  }
  bool ok = true;
  if (args.positional.size() == 2) {
    ok = write_output_file(args.positional[1], pem, static_cast<size_t>(pem_size), args.has("--force"), &why);
  } else {
    ok = std::fwrite(pem, 1, static_cast<size_t>(pem_size), stdout) == static_cast<size_t>(pem_size) &&
         std::fflush(stdout) == 0;
    why = "writing to standard output failed";
  }
  std::free(pem);
  return ok ? kExitOk : fail(why);
}

}  // namespace kora::cli
