// Throw-away keys and X.509 certificates made with OpenSSL, in memory: for the demo, the
// tests and the benchmarks. Not for production identities.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ossl_ptr.h"

namespace kora::certgen {

enum class KeyType { kEcP256, kRsa2048 };

// One subjectAltName entry: type is OpenSSL's GEN_DNS, GEN_URI, GEN_EMAIL or GEN_IPADD;
// value is taken as raw bytes (it may hold a NUL byte; for GEN_IPADD, 4 or 16 raw bytes).
struct AltName {
  int type;
  std::string value;
};

struct CertSpec {
  // Subject entries in order, e.g. {{"CN", "dev"}, {"O", "Kora"}}; a field may repeat and a
  // value may hold a NUL byte. An empty list makes an empty subject.
  std::vector<std::pair<std::string, std::string>> subject{{"CN", "kora-test"}};
  std::vector<AltName> alt_names;  // no extension when empty and !empty_alt_names
  bool empty_alt_names = false;    // add a subjectAltName extension with no entry
  bool is_ca = false;
  KeyType key_type = KeyType::kEcP256;
  int days = 30;
};

struct Credential {
  X509Ptr cert;
  EvpPkeyPtr key;

  std::string cert_pem() const;
  std::vector<uint8_t> cert_der() const;
  std::string key_pem() const;           // PKCS#8, unencrypted
  std::vector<uint8_t> key_der() const;  // PKCS#8 DER, unencrypted
};

// A new key of the given type. Throws std::runtime_error on failure (as every call here).
EvpPkeyPtr make_key(KeyType type);
// A self-signed certificate for spec (the root of a chain when spec.is_ca).
Credential make_self_signed(const CertSpec& spec);
// A certificate for spec signed by issuer.
Credential make_signed(const CertSpec& spec, const Credential& issuer);

}  // namespace kora::certgen
