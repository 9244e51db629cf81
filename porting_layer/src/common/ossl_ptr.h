// Owning pointers for OpenSSL objects. Release ownership with .release() exactly at the call
// that takes it.
#pragma once

#include <openssl/bio.h>
#include <openssl/decoder.h>
#include <openssl/encoder.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace kora {

template <auto Fn>
struct Free {
  template <class T>
  void operator()(T* p) const noexcept {
    Fn(p);
  }
};

using BioPtr = std::unique_ptr<BIO, Free<&BIO_free>>;
using X509Ptr = std::unique_ptr<X509, Free<&X509_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, Free<&EVP_PKEY_free>>;
using EvpCipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, Free<&EVP_CIPHER_CTX_free>>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, Free<&SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, Free<&SSL_free>>;
using SslSessionPtr = std::unique_ptr<SSL_SESSION, Free<&SSL_SESSION_free>>;
using X509ExtPtr = std::unique_ptr<X509_EXTENSION, Free<&X509_EXTENSION_free>>;
using GeneralNamesPtr = std::unique_ptr<GENERAL_NAMES, Free<&GENERAL_NAMES_free>>;
using X509ReqPtr = std::unique_ptr<X509_REQ, Free<&X509_REQ_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, Free<&X509_NAME_free>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, Free<&PKCS12_free>>;
using ProviderPtr = std::unique_ptr<OSSL_PROVIDER, Free<&OSSL_PROVIDER_unload>>;
using DecoderCtxPtr = std::unique_ptr<OSSL_DECODER_CTX, Free<&OSSL_DECODER_CTX_free>>;
using EncoderCtxPtr = std::unique_ptr<OSSL_ENCODER_CTX, Free<&OSSL_ENCODER_CTX_free>>;

}  // namespace kora
