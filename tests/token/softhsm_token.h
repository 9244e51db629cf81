// A private SoftHSM2 token for one process: its own configuration and token directory, a
// token labelled "kora" with a user PIN, and KORA_KM_PKCS11_URI pointing the key service at
// it. The module path comes from the build (KORA_SOFTHSM2_MODULE).
#pragma once

#include <string>

namespace kora::test {

inline constexpr const char* kTokenPin = "1234";

// Sets SOFTHSM2_CONF to a configuration under `dir` and initialises the token there; "" on
// success, else why not.
std::string make_softhsm_token(const std::string& dir);

// The key service's URI for the token made above, with `pin_part` ("pin-value=..." or
// "pin-source=...") and the root key object `object`.
std::string token_uri(const std::string& pin_part = std::string("pin-value=") + kTokenPin,
                      const std::string& object = "kora-root");

}  // namespace kora::test
