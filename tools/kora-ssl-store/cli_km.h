// init's part of the key service: which root key seals the store, making a missing one (or
// refusing to, while a key blob exists), starting over on request, and proving the key
// material works.
#pragma once

namespace kora::cli {

// Runs before the store's own start-up. Says which backend and root key are used; makes a
// missing root key when the store has no key blob yet; with `force_new`, removes the key
// blob files and replaces the root key. *had_key_blob tells whether a key blob remains.
// Returns kExitOk, or prints the failure line and returns kExitFailed.
int prepare_root_key(bool force_new, bool* had_key_blob);

// Seals and unseals a probe with the loaded key material and reports the result.
int probe_key_material();

}  // namespace kora::cli
