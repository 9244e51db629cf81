// Key material for the commands that seal or unseal credentials.
#pragma once

#include "ssl_store_layout.h"

namespace kora::cli {

// Where the store keeps its tree and its provisioned key blob on this device.
inline constexpr const char* kDataRoot = KORA_STORE_DATA_ROOT;
inline constexpr const char* kStoreRoot = KORA_STORE_ROOT;
inline constexpr const char* kKeyBlobFile = KORA_STORE_KEYBLOB_FILE;

// Loads the key blob and nonce that `init` provisioned into the store's memory. Only `init`
// provisions: a store without a key blob is refused here rather than given a fresh one,
// which would leave every credential sealed under the old one unreadable. Returns kExitOk,
// or prints the failure line and returns kExitFailed.
int load_key_material();

// Runs ssl_store_init (tree and key material). Without -v the complaints of "mkdir" about
// directories that already exist are kept off the terminal: only the opening of each
// directory decides. Returns the store's status.
int run_store_init_quietly();

}  // namespace kora::cli
