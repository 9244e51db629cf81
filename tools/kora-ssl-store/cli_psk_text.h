// PSK tables as text, checked line by line before the store's parser sees them: the parser
// merges or drops what it does not expect without saying where.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cli_input.h"

namespace kora::cli {

// The store's table holds keys of 1 to 256 bytes; its parser refuses longer ones.
inline constexpr size_t kMaxPskKeyBytes = 256;

// Checks `text`: blank lines and lines starting with "#" are comments; every other line is
// IDENTITY:HEXKEY, or |IDENTITY|:HEXKEY for an identity holding ":". Identities must be
// sendable by OpenSSL and unique, keys whole bytes of hexadecimal within the store's limit.
// On success *clean holds the entry lines alone, one per line, and *entries their count.
// Else false, with "line N: <rule broken>" in *why.
bool check_psk_text(const SecureVector& text, SecureVector* clean, size_t* entries, std::string* why);

}  // namespace kora::cli
