// put cert: a certificate with its chain and private key, from separate files, from a
// PKCS#12 file, or attached to a key that `csr` made and stored earlier.
#include <openssl/err.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <string>

#include "cli_chain.h"
#include "cli_input.h"
#include "cli_keys.h"
#include "cli_pass.h"
#include "cli_privkey.h"
#include "cli_report.h"
#include "cli_stored.h"
#include "commands.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

constexpr const char* kLegacyProvider = "legacy";

struct Credential {
  CertChain chain;
  EvpPkeyPtr key;
};

bool read_pkcs12(const std::string& path, PassPhrase* pass, Credential* out, std::string* why) {
  SecureVector file;
  if (!read_input(path, &file, why)) {
    return false;
  }
  const unsigned char* p = file.data();
  const Pkcs12Ptr p12(d2i_PKCS12(nullptr, &p, static_cast<long>(file.size())));
  if (!p12) {
    ERR_clear_error();
    *why = path + " is not a PKCS#12 file";
    return false;
  }
  // A file without a pass phrase opens with the empty one; ask only when it does not.
  const char* phrase = "";
  SecureVector terminated;
  if (PKCS12_mac_present(p12.get()) == 1 && PKCS12_verify_mac(p12.get(), "", 0) != 1 &&
      PKCS12_verify_mac(p12.get(), nullptr, 0) != 1) {
    if (!pass->fetch(why)) {
      *why = path + ": " + *why;
      return false;
    }
    terminated.assign(pass->data(), pass->data() + pass->size());
    terminated.push_back(0);
    phrase = reinterpret_cast<const char*>(terminated.data());
    if (PKCS12_verify_mac(p12.get(), phrase, -1) != 1) {
      ERR_clear_error();
      *why = "the pass phrase does not open " + path + ": check --pass";
      return false;
    }
  }
  EVP_PKEY* key = nullptr;
  X509* leaf = nullptr;
  STACK_OF(X509)* rest = nullptr;
  int ok = PKCS12_parse(p12.get(), phrase, &key, &leaf, &rest);
  // Files made by older tools encrypt with RC2 or single DES, which only OpenSSL's legacy
  // provider offers. Loaded on demand next to the default one, and unloaded again.
  ProviderPtr legacy;
  if (ok != 1) {
    legacy.reset(OSSL_PROVIDER_try_load(nullptr, kLegacyProvider, 1));
    ok = legacy ? PKCS12_parse(p12.get(), phrase, &key, &leaf, &rest) : ok;
  }
  const bool legacy_missing = ok != 1 && !legacy;
  ERR_clear_error();
  out->key.reset(key);
  out->chain.certs.clear();
  if (leaf != nullptr) {
    out->chain.certs.emplace_back(leaf);
  }
  while (rest != nullptr && sk_X509_num(rest) > 0) {
    out->chain.certs.emplace_back(sk_X509_shift(rest));
  }
  sk_X509_free(rest);  // emptied above: each certificate moved into the chain
  if (ok != 1 && legacy_missing) {
    *why = path +
           " cannot be opened; if it uses a legacy cipher (RC2, DES), OpenSSL's legacy provider is not "
           "installed here: export it again with AES";
    return false;
  }
  if (ok != 1 || !out->key || out->chain.certs.empty()) {
    *why = path + " does not hold both a certificate and its private key";
    return false;
  }
  order_chain(&out->chain);
  return true;
}

bool read_key_file(const std::string& path, PassPhrase* pass, Credential* out, std::string* why) {
  SecureVector file;
  if (!read_input(path, &file, why)) {
    return false;
  }
  out->key = decode_private_key(file, pass, why);
  if (!out->key) {
    *why = path + ": " + *why;
    return false;
  }
  return true;
}

// The key `csr` stored under the name, for a certificate issued to it.
bool read_stored_key(const std::string& name, Credential* out, std::string* why) {
  if (!stored_exists(name, KORA_NET_SSL_CERTIFICATE_E, true)) {
    *why = "no private key is stored under '" + name +
           "': give --key FILE, or make one with 'kora-ssl-store csr " + name + "'";
    return false;
  }
  SecureVector stored;
  if (!read_stored(name, KORA_NET_SSL_CERTIFICATE_E, true, &stored, why)) {
    return false;
  }
  PassPhrase none("", "the stored key");
  out->key = decode_private_key(stored, &none, why);
  if (!out->key) {
    *why = "the private key stored under '" + name + "' cannot be read";
    return false;
  }
  return true;
}

std::string usage_problem(const Args& args) {
  if (args.positional.size() != 2) {
    return "put cert takes NAME and the options --cert FILE [--key FILE] or --p12 FILE";
  }
  if (args.has("--cert") == args.has("--p12")) {
    return "put cert needs either --cert FILE or --p12 FILE";
  }
  if (args.has("--p12") && args.has("--key")) {
    return "--key does not combine with --p12: the PKCS#12 file holds the key";
  }
  if (args.has("--pass") && !args.has("--key") && !args.has("--p12")) {
    return "--pass belongs to an encrypted --key or --p12 file";
  }
  if (args.has("--pass")) {
    return pass_spec_problem(args.value("--pass"));
  }
  return "";
}

std::string stored_line(const std::string& name, const Credential& c) {
  const size_t n = c.chain.certs.size();
  return "stored certificate '" + name + "' (" + subject_line(c.chain.leaf()) + ") with its " +
         key_description(c.key.get()) + " private key; chain of " + std::to_string(n) +
         (n == 1 ? " certificate" : " certificates");
}

}  // namespace

int put_cert(const Args& args, const std::string& name) {
  if (const std::string why = usage_problem(args); !why.empty()) {
    return usage_error(why);
  }
  Credential cred;
  std::string why;
  const bool from_p12 = args.has("--p12");
  const std::string source = from_p12 ? args.value("--p12") : args.value("--key");
  PassPhrase pass(args.value("--pass"), source);
  if (from_p12) {
    if (!read_pkcs12(source, &pass, &cred, &why)) {
      return fail(why);
    }
  } else {
    SecureVector cert_file;
    if (!read_input(args.value("--cert"), &cert_file, &why)) {
      return fail(why);
    }
    if (!parse_chain(cert_file, &cred.chain, &why)) {
      return fail(args.value("--cert") + " " + why);
    }
    if (args.has("--key") && !read_key_file(source, &pass, &cred, &why)) {
      return fail(why);
    }
  }
  if (const int rc = load_key_material(); rc != kExitOk) {
    return rc;
  }
  if (!cred.key && !read_stored_key(name, &cred, &why)) {
    return fail(why);
  }
  if (X509_check_private_key(cred.chain.leaf(), cred.key.get()) != 1) {
    ERR_clear_error();
    const std::string key_source =
        args.has("--key") ? args.value("--key") : "the key stored under '" + name + "'";
    return fail(key_source +
                " is not the private key of the first certificate: put the leaf first, then its "
                "intermediates");
  }
  SecureVector cert_bytes;
  SecureVector key_bytes;
  if (!encode_chain(cred.chain, &cert_bytes)) {
    return fail("cannot encode the certificate chain");
  }
  if (!encode_key_for_store(cred.key.get(), loader_reads_as_der(cert_bytes), &key_bytes, &why)) {
    return fail(why);
  }
  diag_clear();
  int status = SSL_cert_store(name.c_str(), KORA_NET_SSL_CERTIFICATE_E, cert_bytes.data(),
                              static_cast<int>(cert_bytes.size()), false);
  if (status != KORA_OK) {
    return fail_store("storing certificate '" + name + "' failed", status);
  }
  diag_clear();
  status = SSL_cert_store(name.c_str(), KORA_NET_SSL_CERTIFICATE_E, key_bytes.data(),
                          static_cast<int>(key_bytes.size()), true);
  if (status != KORA_OK) {
    return fail_store("certificate '" + name + "' stored, but storing its private key failed", status);
  }
  std::printf("%s\n", stored_line(name, cred).c_str());
  return kExitOk;
}

}  // namespace kora::cli
