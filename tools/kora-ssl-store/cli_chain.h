// Certificate files with their chain: a leaf followed by the intermediates that lead to a
// root. The stored certificate file holds the whole chain in PEM, leaf first; the store's
// loader takes the leaf from it and the SSL object layer adds the rest. A DER file holds a
// single certificate.
#pragma once

#include <string>
#include <vector>

#include "cli_input.h"
#include "ossl_ptr.h"

namespace kora::cli {

struct CertChain {
  std::vector<X509Ptr> certs;  // leaf first
  bool der = false;            // read from a single DER certificate

  const X509* leaf() const { return certs.empty() ? nullptr : certs.front().get(); }
};

// Every PEM certificate in `bytes`, leaf first, or the one DER certificate. False with the
// reason in *why (no certificate, a broken PEM entry, trailing bytes after DER).
bool parse_chain(const SecureVector& bytes, CertChain* out, std::string* why);

// Drops repeated certificates and puts the issuer of each certificate right after it,
// starting at the leaf; certificates that issue none of the others keep their order at the
// end. For PKCS#12 bags, which need neither keep the chain's order nor avoid repeats.
void order_chain(CertChain* chain);

// The bytes the store keeps for `chain`: the DER of a DER certificate, else the PEM text of
// every certificate, leaf first.
bool encode_chain(const CertChain& chain, SecureVector* out);

// Whether the store's loader will take `stored` (as encode_chain made it) for DER, and so
// decode the private key beside it as DER too. The loader's own classifier decides.
bool loader_reads_as_der(const SecureVector& stored);

// "CN=dev, O=Kora" style one-line subject or issuer.
std::string name_line(const X509_NAME* name);

}  // namespace kora::cli
