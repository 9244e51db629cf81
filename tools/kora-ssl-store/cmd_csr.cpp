// csr: a key born on the device. The key is made in memory, sealed into the store under the
// certificate name (never written in the clear), and a PEM certificate request goes out; the
// certificate issued for it is attached later with `put cert NAME --cert FILE`.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <string>

#include "cli_input.h"
#include "cli_keys.h"
#include "cli_names.h"
#include "cli_output.h"
#include "cli_privkey.h"
#include "cli_report.h"
#include "cli_stored.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

constexpr const char* kDefaultKey = "ec:P-256";
constexpr char kRdnSeparator = '/';
constexpr char kEscape = '\\';
constexpr char kEquals = '=';

// "/CN=dev/O=Kora": fields in order, "\/" for a "/" inside a value. Null with the reason.
X509NamePtr parse_subject(const std::string& text, std::string* why) {
  if (text.empty() || text.front() != kRdnSeparator) {
    *why = "--subject must look like /CN=NAME[/O=ORG...]";
    return nullptr;
  }
  X509NamePtr name(X509_NAME_new());
  std::string field;
  const auto add = [&]() {
    const size_t eq = field.find(kEquals);
    if (eq == std::string::npos || eq == 0 || eq + 1 == field.size()) {
      *why = "'" + field + "' in --subject is not FIELD=VALUE";
      return false;
    }
    const std::string type = field.substr(0, eq);
    const std::string value = field.substr(eq + 1);
    if (X509_NAME_add_entry_by_txt(name.get(), type.c_str(), MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0) != 1) {
      ERR_clear_error();
      *why = "unknown field '" + type + "' or bad value in --subject (use CN, O, OU, C, ST, L, ...)";
      return false;
    }
    field.clear();
    return true;
  };
  for (size_t i = 1; i < text.size(); ++i) {
    if (text[i] == kEscape && i + 1 < text.size()) {
      field.push_back(text[++i]);
    } else if (text[i] == kRdnSeparator) {
      if (!add()) {
        return nullptr;
      }
    } else {
      field.push_back(text[i]);
    }
  }
  if (!add()) {
    return nullptr;
  }
  return name;
}

// A request for `key` with `subject` and, when `san` is not empty, a subjectAltName in
// OpenSSL's configuration syntax ("DNS:a.example,IP:192.0.2.1").
X509ReqPtr make_request(EVP_PKEY* key, const X509_NAME* subject, const std::string& san, std::string* why) {
  X509ReqPtr req(X509_REQ_new());
  if (!req || X509_REQ_set_version(req.get(), X509_REQ_VERSION_1) != 1 ||
      X509_REQ_set_subject_name(req.get(), subject) != 1 || X509_REQ_set_pubkey(req.get(), key) != 1) {
    *why = "cannot build the certificate request";
    return nullptr;
  }
  if (!san.empty()) {
    X509V3_CTX ctx{};
    X509V3_set_ctx(&ctx, nullptr, nullptr, req.get(), nullptr, 0);
    const X509ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, NID_subject_alt_name, san.c_str()));
    STACK_OF(X509_EXTENSION)* exts = sk_X509_EXTENSION_new_null();
    const bool ok = ext && exts != nullptr && sk_X509_EXTENSION_push(exts, ext.get()) > 0 &&
                    X509_REQ_add_extensions(req.get(), exts) == 1;
    sk_X509_EXTENSION_free(exts);  // the extension itself stays owned by `ext`
    if (!ok) {
      ERR_clear_error();
      *why = "--san '" + san + "' is not a list like DNS:host.example,IP:192.0.2.1";
      return nullptr;
    }
  }
  // Ed25519 and Ed448 sign without a separate digest.
  const EVP_MD* md = EVP_PKEY_is_a(key, "ED25519") || EVP_PKEY_is_a(key, "ED448") ? nullptr : EVP_sha256();
  if (X509_REQ_sign(req.get(), key, md) <= 0) {
    ERR_clear_error();
    *why = "cannot sign the certificate request";
    return nullptr;
  }
  return req;
}

bool request_pem(X509_REQ* req, std::string* out) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509_REQ(bio.get(), req) != 1) {
    return false;
  }
  char* data = nullptr;
  const long len = BIO_get_mem_data(bio.get(), &data);
  out->assign(data, static_cast<size_t>(len));
  return true;
}

}  // namespace

int run_csr(const Args& args) {
  if (args.positional.size() != 1 || !args.has("--subject")) {
    return usage_error("csr takes NAME and --subject /CN=...");
  }
  const std::string& name = args.positional[0];
  if (const std::string refusal = name_refusal(name); !refusal.empty()) {
    return usage_error(refusal);
  }
  std::string why;
  const X509NamePtr subject = parse_subject(args.value("--subject"), &why);
  if (!subject) {
    return usage_error(why);
  }
  const std::string key_spec = args.has("--key") ? args.value("--key") : kDefaultKey;
  const std::string out = args.has("--out") ? args.value("--out") : kStdioPath;
  const bool replace = args.has("--force");
  struct stat st {};
  // Checked before the key is made and stored; the write itself refuses a file planted since.
  if (out != kStdioPath && !replace && ::lstat(out.c_str(), &st) == 0) {
    return fail(out + " exists; give --force to replace it");
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  const bool taken = stored_exists(name, KORA_NET_SSL_CERTIFICATE_E, false) ||
                     stored_exists(name, KORA_NET_SSL_CERTIFICATE_E, true);
  if (taken && !args.has("--force")) {
    return fail("certificate '" + name +
                "' or its key is already stored: pick another name, or give --force to " +
                "replace it (its certificate and key are removed)");
  }
  const EvpPkeyPtr key = generate_key(key_spec, &why);
  if (!key) {
    return usage_error(why);
  }
  const X509ReqPtr req = make_request(key.get(), subject.get(), args.value("--san"), &why);
  std::string pem;
  if (!req || !request_pem(req.get(), &pem)) {
    return fail(why.empty() ? "cannot encode the certificate request" : why);
  }
  SecureVector key_bytes;
  // PEM until a certificate arrives: put cert re-encodes it for a DER certificate.
  if (!encode_key_for_store(key.get(), false, &key_bytes, &why)) {
    return fail(why);
  }
  diag_clear();
  if (taken) {
    (void)SSL_cert_store(name.c_str(), KORA_NET_SSL_CERTIFICATE_E, nullptr, 0, false);
  }
  const int status = SSL_cert_store(name.c_str(), KORA_NET_SSL_CERTIFICATE_E, key_bytes.data(),
                                    static_cast<int>(key_bytes.size()), true);
  if (status != KORA_OK) {
    return fail_store("storing the new private key under '" + name + "' failed", status);
  }
  const auto* pem_bytes = reinterpret_cast<const uint8_t*>(pem.data());
  const bool written = out == kStdioPath ? std::fwrite(pem_bytes, 1, pem.size(), stdout) == pem.size() &&
                                               std::fflush(stdout) == 0
                                         : write_output_file(out, pem_bytes, pem.size(), replace, &why);
  if (!written) {
    (void)SSL_cert_store(name.c_str(), KORA_NET_SSL_CERTIFICATE_E, nullptr, 0, false);
    return fail((why.empty() ? "writing the request to standard output failed" : why) +
                "; the new key was not kept");
  }
  (void)std::fprintf(out == kStdioPath ? stderr : stdout,
                     "new %s key sealed under certificate name '%s'; request %s%s\n",
                     key_description(key.get()).c_str(), name.c_str(),
                     out == kStdioPath ? "on standard output" : "in ", out == kStdioPath ? "" : out.c_str());
  return kExitOk;
}

}  // namespace kora::cli
