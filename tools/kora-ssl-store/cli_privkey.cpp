// Decoding, re-encoding and making private keys, all through OpenSSL's decoders and encoders.
#include "cli_privkey.h"

#include <openssl/decoder.h>
#include <openssl/ec.h>
#include <openssl/encoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>

#include <memory>

#include "ssl_store.h"

namespace kora::cli {
namespace {

// The PKCS#8 structure name of OpenSSL's encoders.
constexpr const char* kPkcs8Structure = "PrivateKeyInfo";

struct KeySpec {
  const char* word;       // as --key takes it
  const char* type;       // OpenSSL's key type name
  const char* group;      // EC curve, or null
  unsigned int rsa_bits;  // RSA modulus size, or 0
};

constexpr unsigned int kRsaBits = 3072;
// Room for a curve name such as "brainpoolP512t1".
constexpr size_t kGroupNameSize = 64;

constexpr KeySpec kKeySpecs[] = {
    {"ec:P-256", "EC", "P-256", 0},
    {"ec:P-384", "EC", "P-384", 0},
    {"rsa:3072", "RSA", nullptr, kRsaBits},
    {"ed25519", "ED25519", nullptr, 0},
};

}  // namespace

EvpPkeyPtr decode_private_key(const SecureVector& bytes, PassPhrase* pass, std::string* why) {
  EVP_PKEY* key = nullptr;
  // No input type and no structure: every encoding and structure OpenSSL knows is tried.
  DecoderCtxPtr ctx(
      OSSL_DECODER_CTX_new_for_pkey(&key, nullptr, nullptr, nullptr, EVP_PKEY_KEYPAIR, nullptr, nullptr));
  if (!ctx || OSSL_DECODER_CTX_set_pem_password_cb(ctx.get(), &PassPhrase::pem_callback, pass) != 1) {
    *why = "cannot set up OpenSSL's key decoder";
    return nullptr;
  }
  const unsigned char* data = bytes.data();
  size_t len = bytes.size();
  const int ok = OSSL_DECODER_from_data(ctx.get(), &data, &len);
  ERR_clear_error();
  EvpPkeyPtr owned(key);
  if (ok == 1 && owned) {
    return owned;
  }
  if (pass->problem().empty() && !pass->asked()) {
    // The decoder reads the first PEM block only; a file with the certificate before its
    // key needs the PEM reader, which skips blocks of other types.
    BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    owned.reset(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, &PassPhrase::pem_callback, pass) : nullptr);
    ERR_clear_error();
    if (owned) {
      return owned;
    }
  }
  if (!pass->problem().empty()) {
    *why = pass->problem();
  } else if (pass->asked()) {
    *why = "the pass phrase does not decrypt the key: check --pass";
  } else {
    *why = "holds no private key OpenSSL can read (PKCS#8 or traditional, PEM or DER)";
  }
  return nullptr;
}

bool encode_key_for_store(const EVP_PKEY* key, bool der, SecureVector* out, std::string* why) {
  EncoderCtxPtr ctx(
      OSSL_ENCODER_CTX_new_for_pkey(key, EVP_PKEY_KEYPAIR, der ? "DER" : "PEM", kPkcs8Structure, nullptr));
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!ctx || !bio || OSSL_ENCODER_CTX_get_num_encoders(ctx.get()) == 0 ||
      OSSL_ENCODER_to_bio(ctx.get(), bio.get()) != 1) {
    ERR_clear_error();
    *why = "cannot encode the private key as PKCS#8";
    return false;
  }
  char* data = nullptr;
  const long len = BIO_get_mem_data(bio.get(), &data);
  out->assign(reinterpret_cast<uint8_t*>(data), reinterpret_cast<uint8_t*>(data) + len);
  // What the loader will do with it: the store's own decoder, with the certificate's encoding.
  const EvpPkeyPtr back(utility_get_EVP_KEY_from_buffer(out->data(), out->size(), der));
  ERR_clear_error();
  if (!back || EVP_PKEY_eq(back.get(), key) != 1) {
    *why = "the store's key decoder cannot read this key type back";
    return false;
  }
  return true;
}

std::string key_spec_words() {
  std::string words;
  for (const KeySpec& k : kKeySpecs) {
    words += words.empty() ? k.word : std::string("|") + k.word;
  }
  return words;
}

EvpPkeyPtr generate_key(const std::string& spec, std::string* why) {
  for (const KeySpec& k : kKeySpecs) {
    if (spec != k.word) {
      continue;
    }
    EvpPkeyPtr key;
    if (k.group != nullptr) {
      key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, k.type, k.group));
    } else if (k.rsa_bits != 0) {
      key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, k.type, static_cast<size_t>(k.rsa_bits)));
    } else {
      key.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, k.type));
    }
    if (!key) {
      ERR_clear_error();
      *why = "OpenSSL could not make a " + spec + " key";
    }
    return key;
  }
  *why = "unknown key type '" + spec + "': use " + key_spec_words();
  return nullptr;
}

std::string key_description(const EVP_PKEY* key) {
  if (key == nullptr) {
    return "(none)";
  }
  const char* type = EVP_PKEY_get0_type_name(key);
  std::string text = type != nullptr ? type : "unknown";
  char group[kGroupNameSize] = {0};
  size_t group_len = 0;
  if (EVP_PKEY_get_group_name(key, group, sizeof group, &group_len) == 1) {
    // "P-256" rather than "prime256v1" where the curve has a NIST name.
    const char* nist = EC_curve_nid2nist(OBJ_sn2nid(group));
    return text + " " + (nist != nullptr ? nist : group);
  }
  ERR_clear_error();
  if (EVP_PKEY_is_a(key, "RSA") || EVP_PKEY_is_a(key, "RSA-PSS") || EVP_PKEY_is_a(key, "DSA")) {
    text += " " + std::to_string(EVP_PKEY_get_bits(key));
  }
  return text;
}

}  // namespace kora::cli
