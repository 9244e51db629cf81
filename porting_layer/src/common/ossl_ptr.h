// Owning pointers for OpenSSL objects. Release ownership with .release() exactly at the call
// that takes it.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
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

}  // namespace kora
