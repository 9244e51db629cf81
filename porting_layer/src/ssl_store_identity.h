// Working out the identifier of a device-identity certificate (inside the store module).
#pragma once

#include <openssl/x509.h>

#include "kora_net_ssl.h"

namespace kora::store {

// Fills *out with the certificate's subject common name (type CN) when it holds no NUL byte;
// otherwise with its first DNS or URI subject-alternative name, if that is clean. Returns
// KORA_OK, also when no identifier was found, and KORA_ERROR when there is no
// subjectAltName extension or the first DNS/URI entry holds a NUL byte. Names are cut to 63
// characters.
int work_out_identifier(X509* cert, kora_Net_SSL_Identifier_t* out);

}  // namespace kora::store
