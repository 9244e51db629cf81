// put: seal and store one credential of a kind under a name. Certificates are in
// cmd_put_cert.cpp.
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli_chain.h"
#include "cli_files.h"
#include "cli_input.h"
#include "cli_keys.h"
#include "cli_names.h"
#include "cli_psk_text.h"
#include "cli_report.h"
#include "cli_stored.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

// The sealed bytes of a stored file as they lie on flash; empty when there is none. Sealing
// draws a fresh IV each time, so two reads differ exactly when the file was rewritten.
std::string sealed_bytes(const std::string& name, kora_Net_SSL_Cert_Type_t type) {
  if (!stored_exists(name, type, false)) {
    return "";
  }
  void* buffer = nullptr;
  size_t size = 0;
  std::string bytes;
  if (ssl_store_read_from_file(stored_path(name, type, false).c_str(), &buffer, &size) == KORA_OK &&
      buffer != nullptr) {
    bytes.assign(static_cast<const char*>(buffer), size);
  }
  std::free(buffer);
  return bytes;
}

int put_psk(const std::string& path, const std::string& name) {
  SecureVector file;
  SecureVector clean;
  size_t entries = 0;
  std::string why;
  if (!read_input(path, &file, &why)) {
    return fail(why);
  }
  if (!check_psk_text(file, &clean, &entries, &why)) {
    return fail(path + " " + why);
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  const std::string before = sealed_bytes(name, KORA_NET_SSL_PSK_TABLE_E);
  kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(clean.size()), clean.data()};
  diag_clear();
  const int status = ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>(name.c_str()));
  if (status != KORA_OK) {
    // The parser can report -1 after it stored part of the table: a refused table must not
    // stay behind in its place. The sealed file changes only when the store's write went
    // through, and then it has released ssl_mutex (a failed write keeps it held, and any
    // further store call would wait for ever).
    if (sealed_bytes(name, KORA_NET_SSL_PSK_TABLE_E) != before) {
      (void)SSL_cert_store(name.c_str(), KORA_NET_SSL_PSK_TABLE_E, nullptr, 0, false);
    }
    return fail_store("storing PSK table '" + name + "' failed; nothing was stored", status);
  }
  std::printf("stored PSK table '%s' (%zu %s)\n", name.c_str(), entries, entries == 1 ? "entry" : "entries");
  return kExitOk;
}

int put_file(const Args& args, const Kind& kind, const std::string& name) {
  if (args.positional.size() != 3) {
    return usage_error(std::string("put ") + kind.word + " takes NAME FILE");
  }
  for (const char* option : {"--cert", "--key", "--p12", "--pass"}) {
    if (args.has(option)) {
      return usage_error(std::string(option) + " belongs to 'put " +
                         find_kind(KORA_NET_SSL_CERTIFICATE_E)->word + "', not 'put " + kind.word + "'");
    }
  }
  const std::string& path = args.positional[2];
  if (kind.type == KORA_NET_SSL_PSK_TABLE_E) {
    return put_psk(path, name);
  }
  SecureVector file;
  std::string why;
  if (!read_input(path, &file, &why)) {
    return fail(why);
  }
  CertChain certs;
  const bool parsed = parse_chain(file, &certs, &why);
  std::string detail;
  if (kind.type == KORA_NET_SSL_CA_LIST_E) {
    if (!parsed || certs.der) {
      return fail(path + " is not a PEM list of CA certificates");
    }
    const size_t n = certs.certs.size();
    detail = std::to_string(n) + (n == 1 ? " certificate" : " certificates");
  } else {
    if (!parsed) {
      return fail(path + " " + why);
    }
    detail = subject_line(certs.leaf());
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  diag_clear();
  const int status =
      SSL_cert_store(name.c_str(), kind.type, file.data(), static_cast<int>(file.size()), false);
  if (status != KORA_OK) {
    return fail_store(std::string("storing ") + kind.title + " '" + name + "' failed", status);
  }
  std::printf("stored %s '%s' (%s)\n", kind.title, name.c_str(), detail.c_str());
  return kExitOk;
}

}  // namespace

int run_put(const Args& args) {
  if (args.positional.size() < 2) {
    return usage_error("put needs KIND and NAME");
  }
  Kind kind{};
  const std::string& name = args.positional[1];
  if (const std::string why = target_problem(args.positional[0], name, &kind); !why.empty()) {
    return usage_error(why);
  }
  if (const int rc = refuse_irregular_credential(kind.type, name); rc != kExitOk) {
    return rc;
  }
  if (kind.type == KORA_NET_SSL_CERTIFICATE_E) {
    return put_cert(args, name);
  }
  return put_file(args, kind, name);
}

}  // namespace kora::cli
