// Reading stored credentials back for listings: certificates, keys, CA lists, PSK identities.
#include "cli_details.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <ctime>

#include "cli_chain.h"
#include "cli_privkey.h"
#include "cli_stored.h"
#include "ssl_store.h"

namespace kora::cli {
namespace {

constexpr const char* kTimeFormat = "%Y-%m-%d %H:%M:%S UTC";
constexpr size_t kTimeTextSize = sizeof "YYYY-MM-DD HH:MM:SS UTC";

std::string time_text(const ASN1_TIME* t) {
  struct tm tm {};
  char text[kTimeTextSize] = {0};
  if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1 ||
      std::strftime(text, sizeof text, kTimeFormat, &tm) == 0) {
    return "(unreadable)";
  }
  return text;
}

std::string expiry_text(const ASN1_TIME* not_after, int64_t* days_left) {
  int days = 0;
  int seconds = 0;
  if (not_after == nullptr || ASN1_TIME_diff(&days, &seconds, nullptr, not_after) != 1) {
    *days_left = 0;
    return "unknown";
  }
  *days_left = days;
  if (days < 0 || (days == 0 && seconds < 0)) {
    return "EXPIRED";
  }
  if (days <= kExpiryWarningDays) {
    return "EXPIRES SOON";
  }
  return "valid";
}

std::string fingerprint(const X509* cert) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (X509_digest(cert, EVP_sha256(), md, &len) != 1) {
    return "(unavailable)";
  }
  char* hex = OPENSSL_buf2hexstr(md, len);
  std::string text = hex != nullptr ? hex : "(unavailable)";
  OPENSSL_free(hex);
  return text;
}

void add_certificate(const X509* cert, std::vector<Field>* fields) {
  const ASN1_TIME* not_after = X509_get0_notAfter(cert);
  int64_t days_left = 0;
  const std::string expiry = expiry_text(not_after, &days_left);
  fields->push_back({"subject", "subject", name_line(X509_get_subject_name(cert))});
  fields->push_back({"issuer", "issuer", name_line(X509_get_issuer_name(cert))});
  fields->push_back({"not_after", "not after", time_text(not_after)});
  fields->push_back({"expiry", "expiry", expiry});
  fields->push_back({"days_left", "days left", days_left});
  fields->push_back({"sha256", "sha256", fingerprint(cert)});
}

bool read_chain(const Kind& kind, const std::string& name, CertChain* chain, SecureVector* bytes,
                std::string* why) {
  if (!read_stored(name, kind.type, false, bytes, why)) {
    return false;
  }
  if (!parse_chain(*bytes, chain, why)) {
    *why = "the stored " + std::string(kind.title) + " '" + name + "' " + *why;
    return false;
  }
  return true;
}

// The stored key, decoded the way the loader decodes it (with the certificate's encoding).
void add_key(const std::string& name, bool der, std::vector<Field>* fields) {
  SecureVector bytes;
  std::string why;
  if (!read_stored(name, KORA_NET_SSL_CERTIFICATE_E, true, &bytes, &why)) {
    fields->push_back({"key", "key", std::string("(missing)")});
    return;
  }
  const EvpPkeyPtr key(utility_get_EVP_KEY_from_buffer(bytes.data(), bytes.size(), der));
  ERR_clear_error();
  fields->push_back({"key", "key", key ? key_description(key.get()) : std::string("(does not load)")});
  if (key) {
    fields->push_back({"key_bits", "key bits", static_cast<int64_t>(EVP_PKEY_get_bits(key.get()))});
  }
}

bool describe_certificate(const Kind& kind, const std::string& name, Record* out, std::string* why) {
  if (!stored_exists(name, kind.type, false)) {
    if (stored_exists(name, kind.type, true)) {
      out->fields.push_back({"state", "state", std::string("key only: waiting for its certificate")});
      add_key(name, false, &out->fields);
      return true;
    }
    *why = std::string("no ") + kind.title + " named '" + name + "' in the store";
    return false;
  }
  CertChain chain;
  SecureVector bytes;
  if (!read_chain(kind, name, &chain, &bytes, why)) {
    return false;
  }
  add_certificate(chain.leaf(), &out->fields);
  add_key(name, loader_reads_as_der(bytes), &out->fields);
  out->fields.push_back({"chain_length", "chain length", static_cast<int64_t>(chain.certs.size())});
  return true;
}

bool describe_ca_list(const Kind& kind, const std::string& name, Record* out, std::string* why) {
  CertChain list;
  SecureVector bytes;
  if (!read_chain(kind, name, &list, &bytes, why)) {
    return false;
  }
  std::vector<std::string> subjects;
  for (const X509Ptr& cert : list.certs) {
    subjects.push_back(name_line(X509_get_subject_name(cert.get())));
  }
  out->fields.push_back({"certificates", "certificates", static_cast<int64_t>(list.certs.size())});
  out->fields.push_back({"subjects", "subjects", subjects});
  return true;
}

void collect_identity(const uint8_t* identity, size_t len, void* user) {
  static_cast<std::vector<std::string>*>(user)->emplace_back(reinterpret_cast<const char*>(identity), len);
}

bool describe_psk_table(const std::string& name, Record* out, std::string* why) {
  std::vector<std::string> identities;
  const int n = SSL_psk_table_identities(name.c_str(), &collect_identity, &identities);
  if (n < 0) {
    *why = "cannot read PSK table '" + name + "'";
    return false;
  }
  out->fields.push_back({"entries", "entries", static_cast<int64_t>(n)});
  out->fields.push_back({"identities", "identities", identities});
  return true;
}

}  // namespace

bool describe(const Kind& kind, const std::string& name, Record* out, std::string* why) {
  out->kind = kind;
  out->name = name;
  out->fields.clear();
  if (kind.type != KORA_NET_SSL_CERTIFICATE_E && !stored_exists(name, kind.type, false)) {
    *why = std::string("no ") + kind.title + " named '" + name + "' in the store";
    return false;
  }
  switch (kind.type) {
    case KORA_NET_SSL_CERTIFICATE_E:
      return describe_certificate(kind, name, out, why);
    case KORA_NET_SSL_CA_LIST_E:
      return describe_ca_list(kind, name, out, why);
    case KORA_NET_SSL_PSK_TABLE_E:
      return describe_psk_table(name, out, why);
    case KORA_NET_SSL_DI_CERT_E: {
      CertChain cert;
      SecureVector bytes;
      if (!read_chain(kind, name, &cert, &bytes, why)) {
        return false;
      }
      add_certificate(cert.leaf(), &out->fields);
      return true;
    }
  }
  *why = "unknown kind";
  return false;
}

}  // namespace kora::cli
