// Parsing, ordering and encoding certificate chains.
#include "cli_chain.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstdint>
#include <limits>

#include "ssl_util.h"

namespace kora::cli {

bool parse_chain(const SecureVector& bytes, CertChain* out, std::string* why) {
  BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (!bio) {
    *why = "out of memory";
    return false;
  }
  out->certs.clear();
  while (X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    out->certs.emplace_back(cert);
  }
  // The loop ends at the end of the text (no start line found) or at a broken entry.
  const unsigned long err = ERR_peek_last_error();
  ERR_clear_error();
  if (!out->certs.empty()) {
    if (err != 0 && ERR_GET_REASON(err) != PEM_R_NO_START_LINE) {
      *why = "certificate " + std::to_string(out->certs.size() + 1) + " of the chain is broken";
      return false;
    }
    out->der = false;
    return true;
  }
  const unsigned char* p = bytes.data();
  X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(bytes.size())));
  ERR_clear_error();
  if (!cert) {
    *why = "holds no certificate (PEM or DER expected)";
    return false;
  }
  if (p != bytes.data() + bytes.size()) {
    *why = "holds bytes after its DER certificate (a DER file holds one certificate; use PEM for a chain)";
    return false;
  }
  out->certs.push_back(std::move(cert));
  out->der = true;
  return true;
}

void order_chain(CertChain* chain) {
  std::vector<X509Ptr>& c = chain->certs;
  for (size_t i = 0; i < c.size(); ++i) {
    for (size_t j = c.size() - 1; j > i; --j) {
      if (X509_cmp(c[i].get(), c[j].get()) == 0) {
        c.erase(c.begin() + static_cast<long>(j));
      }
    }
  }
  for (size_t i = 0; i + 1 < c.size(); ++i) {
    for (size_t j = i + 1; j < c.size(); ++j) {
      if (X509_check_issued(c[j].get(), c[i].get()) == X509_V_OK) {
        std::swap(c[i + 1], c[j]);
        break;
      }
    }
  }
}

bool encode_chain(const CertChain& chain, SecureVector* out) {
  out->clear();
  if (chain.der) {
    unsigned char* der = nullptr;
    const int len = i2d_X509(chain.leaf(), &der);
    if (len <= 0) {
      return false;
    }
    out->assign(der, der + len);
    OPENSSL_free(der);
    return true;
  }
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) {
    return false;
  }
  for (const X509Ptr& cert : chain.certs) {
    if (PEM_write_bio_X509(bio.get(), cert.get()) != 1) {
      return false;
    }
  }
  char* data = nullptr;
  const long len = BIO_get_mem_data(bio.get(), &data);
  out->assign(reinterpret_cast<uint8_t*>(data), reinterpret_cast<uint8_t*>(data) + len);
  return true;
}

bool loader_reads_as_der(const SecureVector& stored) {
  // The loader passes the file's size cut to 16 bits; so does this.
  const auto len = static_cast<uint16_t>(stored.size() & std::numeric_limits<uint16_t>::max());
  return openssl_IsDerFormat(stored.data(), len) != 0;
}

std::string name_line(const X509_NAME* name) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB) < 0) {
    return "(unprintable)";
  }
  char* data = nullptr;
  const long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(len));
}

}  // namespace kora::cli
