// Reading what the store holds, through its own path resolution and unsealing calls.
#pragma once

#include <string>
#include <vector>

#include "cli_args.h"
#include "cli_input.h"
#include "cli_names.h"
#include "kora_net_ssl.h"
#include "ssl_util.h"

namespace kora::cli {

// The absolute path of a credential (or of a certificate's private key when `key`), as the
// store resolves it. Empty when the store refuses the name.
std::string stored_path(const std::string& name, kora_Net_SSL_Cert_Type_t type, bool key);

// Whether the file exists: the credential, or a certificate's private key when `key`.
bool stored_exists(const std::string& name, kora_Net_SSL_Cert_Type_t type, bool key);

// Every name stored for `type` (private-key files when `key`), sorted. The store's own
// listing call stops at ten names; this reads the kind's directory, which the store names
// through its path resolution. Like the store's listing, it takes regular files only.
bool stored_names(kora_Net_SSL_Cert_Type_t type, bool key, std::vector<std::string>* names, std::string* why);

// One stored credential as a command names it.
struct Target {
  Kind kind{};
  std::string name;
};

// For commands that take KIND NAME and nothing else (show, rm): checks both words, loads
// the store's key material and refuses files the store must not open. kExitOk with *target
// set, else the exit code after the refusal line was printed.
int open_target(const Args& args, const char* command, Target* target);

// Prints "no <title> named '<name>' in the store", returns kExitFailed.
int fail_not_stored(const char* title, const std::string& name);

// Loads the stored credential `name` (already checked against the name rule) onto the
// object. Returns kExitOk, or prints the failure line (with the store's status) and returns
// kExitFailed.
int load_credential(ssl_obj_hdl_t hdl, kora_Net_SSL_Cert_Type_t type, const std::string& name);

// Unseals one stored file into *out. False with the reason in *why.
bool read_stored(const std::string& name, kora_Net_SSL_Cert_Type_t type, bool key, SecureVector* out,
                 std::string* why);

}  // namespace kora::cli
