// Private keys as users hand them over, and as the store's loader reads them back.
//
// The loader decodes a stored key with its certificate's encoding: PEM keys for PEM
// certificates, DER keys for DER certificates. Whatever form a key arrives in (PKCS#8 or
// traditional, PEM or DER, encrypted or not), it is stored as unencrypted PKCS#8 in its
// certificate's encoding, and decoded once more with the store's own decoder before sealing.
#pragma once

#include <string>
#include <vector>

#include "cli_input.h"
#include "cli_pass.h"
#include "ossl_ptr.h"

namespace kora::cli {

// Any private key OpenSSL reads: PKCS#8 (plain or encrypted) or traditional, PEM or DER,
// RSA, EC, Ed25519, Ed448. An encrypted key takes its pass phrase from *pass. Null with
// the reason in *why.
EvpPkeyPtr decode_private_key(const SecureVector& bytes, PassPhrase* pass, std::string* why);

// The bytes to store for `key` next to a certificate stored in DER (der) or PEM: unencrypted
// PKCS#8 that the store's key decoder has been seen to read back as the same key.
bool encode_key_for_store(const EVP_PKEY* key, bool der, SecureVector* out, std::string* why);

// The key types `csr --key` makes, e.g. "ec:P-256", for help texts and refusals.
std::string key_spec_words();
// A new key for `spec` (one of key_spec_words()). Null with the reason in *why.
EvpPkeyPtr generate_key(const std::string& spec, std::string* why);

// "EC P-256", "RSA 3072", "ED25519": the key's type and size, for listings.
std::string key_description(const EVP_PKEY* key);

}  // namespace kora::cli
