// Files the user hands to the tool, and the checks made on them before they are stored.
#pragma once

#include <cstdint>
#include <string>

#include "ossl_ptr.h"
#include "secure_bytes.h"

namespace kora::cli {

// Credential files larger than this are refused: the store keeps each one whole in memory.
inline constexpr size_t kMaxInputSize = 1u << 20;

// The path that stands for standard input wherever the tool reads a file, and for standard
// output wherever it writes one.
inline constexpr const char* kStdioPath = "-";

// Reads the whole file at `path`, or standard input when `path` is "-". False with the reason
// in *why (missing, a directory, empty, too large, standard input already used).
bool read_input(const std::string& path, SecureVector* out, std::string* why);
// Marks standard input as used by something other than read_input (a pass phrase). False
// when it already is.
bool claim_stdin(std::string* why);

// "CN=dev, O=Kora" style one-line subject of a certificate.
std::string subject_line(const X509* cert);

}  // namespace kora::cli
