// put: seal and store one credential of a kind under a name.
#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdio>
#include <string>

#include "cli_files.h"
#include "cli_input.h"
#include "cli_keys.h"
#include "cli_names.h"
#include "cli_report.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

int store_bytes(const std::string& name, kora_Net_SSL_Cert_Type_t type, const FileBytes& file,
                bool priv_key) {
  diag_clear();
  return SSL_cert_store(name.c_str(), type, file.data(), static_cast<int>(file.size()), priv_key);
}

int put_cert(const Args& args, const std::string& name) {
  if (args.positional.size() != 2) {
    return usage_error("put cert takes NAME and the options --cert FILE --key FILE");
  }
  if (!args.has("--cert") || !args.has("--key")) {
    return usage_error("put cert needs both --cert FILE and --key FILE");
  }
  FileBytes cert_file;
  FileBytes key_file;
  std::string why;
  if (!read_input(args.value("--cert"), &cert_file, &why) ||
      !read_input(args.value("--key"), &key_file, &why)) {
    return fail(why);
  }
  const X509Ptr cert = parse_certificate(cert_file.bytes());
  if (!cert) {
    return fail(args.value("--cert") + " holds no certificate (PEM or DER expected)");
  }
  const EvpPkeyPtr key = parse_private_key(key_file.bytes());
  if (!key) {
    return fail(args.value("--key") + " holds no unencrypted private key (PEM or DER expected)");
  }
  if (X509_check_private_key(cert.get(), key.get()) != 1) {
    ERR_clear_error();
    return fail(args.value("--key") + " is not the private key of the certificate in " +
                args.value("--cert"));
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  int status = store_bytes(name, KORA_NET_SSL_CERTIFICATE_E, cert_file, false);
  if (status != KORA_OK) {
    return fail_store("storing certificate '" + name + "' failed", status);
  }
  status = store_bytes(name, KORA_NET_SSL_CERTIFICATE_E, key_file, true);
  if (status != KORA_OK) {
    return fail_store("certificate '" + name + "' stored, but storing its private key failed", status);
  }
  std::printf("stored certificate '%s' (%s) with its private key\n", name.c_str(),
              subject_line(cert.get()).c_str());
  return kExitOk;
}

int put_file(const Args& args, const Kind& kind, const std::string& name) {
  if (args.positional.size() != 3) {
    return usage_error(std::string("put ") + kind.word + " takes NAME FILE");
  }
  if (args.has("--cert") || args.has("--key")) {
    return usage_error(std::string("--cert and --key belong to 'put cert', not 'put ") + kind.word + "'");
  }
  const std::string& path = args.positional[2];
  FileBytes file;
  std::string why;
  if (!read_input(path, &file, &why)) {
    return fail(why);
  }
  std::string detail;
  if (kind.type == KORA_NET_SSL_CA_LIST_E) {
    const int n = count_pem_certificates(file.bytes());
    if (n <= 0) {
      return fail(path + " is not a PEM list of CA certificates");
    }
    detail = std::to_string(n) + (n == 1 ? " certificate" : " certificates");
  } else if (kind.type == KORA_NET_SSL_DI_CERT_E) {
    const X509Ptr cert = parse_certificate(file.bytes());
    if (!cert) {
      return fail(path + " holds no certificate (PEM or DER expected)");
    }
    detail = subject_line(cert.get());
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  int status = KORA_OK;
  if (kind.type == KORA_NET_SSL_PSK_TABLE_E) {
    // The store parses the text itself and refuses a malformed table as a whole.
    kora_Net_SSL_PSK_Table_t table{static_cast<uint32_t>(file.size()), file.bytes().data()};
    diag_clear();
    status = ssl_parse_and_store_psktable(&table, reinterpret_cast<const uint8_t*>(name.c_str()));
    detail = "parsed and sealed";
  } else {
    status = store_bytes(name, kind.type, file, false);
  }
  if (status != KORA_OK) {
    if (kind.type == KORA_NET_SSL_PSK_TABLE_E && status == KORA_ERROR && diag_last_error().empty()) {
      return fail_store("storing PSK table '" + name + "' failed (is every line IDENTITY:HEXKEY?)", status);
    }
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
