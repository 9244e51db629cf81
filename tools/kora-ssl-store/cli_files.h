// The files of the store tree as the tool meets them before the store does: the store opens
// them with plain fopen and mkdir, so the tool refuses what it must not touch (a FIFO that
// would block, a symbolic link, another user's file) and keeps the tree private.
#pragma once

#include <string>

#include "kora_net_ssl.h"

namespace kora::cli {

// Empty when `path` is missing or a regular file (never followed, never opened); else why the
// store must not open it.
std::string store_file_problem(const std::string& path);

// Checks the files the store will open for the credential `name` of `type` (a certificate
// together with its private key): kExitOk, or the failure line printed and kExitFailed.
int refuse_irregular_credential(kora_Net_SSL_Cert_Type_t type, const std::string& name);
// The same for the key blob and its nonce.
int refuse_irregular_key_material();

// Empty when the data root and the store tree (if it exists) belong to the effective user
// and others cannot write them; else why `init` refuses to work there.
std::string tree_owner_problem();
// Makes every directory of the store tree 0700 and every file 0600, refusing an entry that
// is neither, or belongs to another user. Empty, or why the tree was not repaired.
std::string make_tree_private();

}  // namespace kora::cli
