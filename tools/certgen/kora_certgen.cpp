#include "kora_certgen.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <stdexcept>

namespace kora::certgen {
namespace {

[[noreturn]] void fail(const char* what) {
  const unsigned long code = ERR_get_error();
  char reason[256] = "no OpenSSL error";
  if (code != 0) {
    ERR_error_string_n(code, reason, sizeof reason);
  }
  ERR_clear_error();
  throw std::runtime_error(std::string("certgen: ") + what + ": " + reason);
}

std::string bio_text(BIO* bio) {
  char* data = nullptr;
  const long len = BIO_get_mem_data(bio, &data);
  return len > 0 ? std::string(data, static_cast<size_t>(len)) : std::string();
}

void add_subject(X509_NAME* name, const std::vector<std::pair<std::string, std::string>>& entries) {
  for (const auto& [field, value] : entries) {
    // X509_NAME_add_entry_by_txt takes an explicit length, so a value may hold a NUL byte.
    if (X509_NAME_add_entry_by_txt(name, field.c_str(), MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(value.data()),
                                   static_cast<int>(value.size()), -1, 0) != 1) {
      fail("subject entry");
    }
  }
}

void add_extension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
  if (!ext || X509_add_ext(cert, ext.get(), -1) != 1) {
    fail("extension");
  }
}

void add_alt_names(X509* cert, const CertSpec& spec) {
  if (spec.alt_names.empty() && !spec.empty_alt_names) {
    return;
  }
  GeneralNamesPtr names(GENERAL_NAMES_new());
  if (!names) {
    fail("GENERAL_NAMES_new");
  }
  for (const AltName& alt : spec.alt_names) {
    GENERAL_NAME* gen = GENERAL_NAME_new();
    if (gen == nullptr) {
      fail("GENERAL_NAME_new");
    }
    ASN1_STRING* text = alt.type == GEN_IPADD ? ASN1_OCTET_STRING_new() : ASN1_IA5STRING_new();
    if (text == nullptr || ASN1_STRING_set(text, alt.value.data(), static_cast<int>(alt.value.size())) != 1) {
      ASN1_STRING_free(text);
      GENERAL_NAME_free(gen);
      fail("alt name value");
    }
    GENERAL_NAME_set0_value(gen, alt.type, text);  // gen owns text from here
    if (sk_GENERAL_NAME_push(names.get(), gen) == 0) {
      GENERAL_NAME_free(gen);
      fail("alt name push");
    }
  }
  if (X509_add1_ext_i2d(cert, NID_subject_alt_name, names.get(), 0, X509V3_ADD_DEFAULT) != 1) {
    fail("subjectAltName");
  }
}

Credential issue(const CertSpec& spec, const Credential* issuer) {
  Credential out;
  out.key = make_key(spec.key_type);
  out.cert.reset(X509_new());
  if (!out.cert) {
    fail("X509_new");
  }
  X509* cert = out.cert.get();
  if (X509_set_version(cert, 2) != 1) {
    fail("version");
  }
  unsigned char serial_bytes[16];
  if (RAND_bytes(serial_bytes, sizeof serial_bytes) != 1) {
    fail("serial");
  }
  serial_bytes[0] &= 0x7f;  // a positive serial
  BIGNUM* serial_bn = BN_bin2bn(serial_bytes, sizeof serial_bytes, nullptr);
  if (serial_bn == nullptr || BN_to_ASN1_INTEGER(serial_bn, X509_get_serialNumber(cert)) == nullptr) {
    BN_free(serial_bn);
    fail("serial");
  }
  BN_free(serial_bn);
  if (X509_gmtime_adj(X509_getm_notBefore(cert), -3600) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(cert), 60L * 60 * 24 * spec.days) == nullptr) {
    fail("validity");
  }
  add_subject(X509_get_subject_name(cert), spec.subject);
  X509* issuer_cert = issuer != nullptr ? issuer->cert.get() : cert;
  if (X509_set_issuer_name(cert, X509_get_subject_name(issuer_cert)) != 1 ||
      X509_set_pubkey(cert, out.key.get()) != 1) {
    fail("issuer or public key");
  }
  if (spec.is_ca) {
    add_extension(cert, issuer_cert, NID_basic_constraints, "critical,CA:TRUE");
    add_extension(cert, issuer_cert, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    add_extension(cert, issuer_cert, NID_basic_constraints, "CA:FALSE");
  }
  add_extension(cert, issuer_cert, NID_subject_key_identifier, "hash");
  if (issuer != nullptr) {
    add_extension(cert, issuer_cert, NID_authority_key_identifier, "keyid:always");
  }
  add_alt_names(cert, spec);
  EVP_PKEY* signing_key = issuer != nullptr ? issuer->key.get() : out.key.get();
  if (X509_sign(cert, signing_key, EVP_sha256()) <= 0) {
    fail("sign");
  }
  return out;
}

}  // namespace

EvpPkeyPtr make_key(KeyType type) {
  EvpPkeyPtr key(type == KeyType::kRsa2048 ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256"));
  if (!key) {
    fail("key generation");
  }
  return key;
}

Credential make_self_signed(const CertSpec& spec) { return issue(spec, nullptr); }

Credential make_signed(const CertSpec& spec, const Credential& issuer) { return issue(spec, &issuer); }

std::string Credential::cert_pem() const {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), cert.get()) != 1) {
    fail("certificate PEM");
  }
  return bio_text(bio.get());
}

std::vector<uint8_t> Credential::cert_der() const {
  unsigned char* der = nullptr;
  const int len = i2d_X509(cert.get(), &der);
  if (len <= 0) {
    fail("certificate DER");
  }
  std::vector<uint8_t> out(der, der + len);
  OPENSSL_free(der);
  return out;
}

std::string Credential::key_pem() const {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    fail("key PEM");
  }
  return bio_text(bio.get());
}

std::vector<uint8_t> Credential::key_der() const {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || i2d_PKCS8PrivateKey_bio(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    fail("key DER");
  }
  const std::string bytes = bio_text(bio.get());
  return {bytes.begin(), bytes.end()};
}

}  // namespace kora::certgen
