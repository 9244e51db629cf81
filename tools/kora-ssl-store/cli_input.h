// Files the user hands to the tool, and the checks made on them before they are stored.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ossl_ptr.h"

namespace kora::cli {

// A file's bytes; wiped when released, since a private key or PSK table passes through.
class FileBytes {
 public:
  FileBytes() = default;
  ~FileBytes();
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;
  FileBytes(FileBytes&& other) noexcept : bytes_(std::move(other.bytes_)) {}

  std::vector<uint8_t>& bytes() { return bytes_; }
  const std::vector<uint8_t>& bytes() const { return bytes_; }
  const uint8_t* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }

 private:
  std::vector<uint8_t> bytes_;
};

// Credential files larger than this are refused: the store keeps each one whole in memory.
inline constexpr size_t kMaxInputSize = 1u << 20;

// Reads the whole file at `path`. False with the reason in *why (missing, a directory,
// empty, too large).
bool read_input(const std::string& path, FileBytes* out, std::string* why);

// A certificate in PEM or DER; null when the bytes hold none.
X509Ptr parse_certificate(const std::vector<uint8_t>& bytes);
// A private key in PEM (PKCS#8 or traditional) or DER; null when the bytes hold none.
EvpPkeyPtr parse_private_key(const std::vector<uint8_t>& bytes);
// Number of PEM certificates in a CA list; -1 when the text holds anything else that breaks
// the list (the store hands it to OpenSSL as a PEM file).
int count_pem_certificates(const std::vector<uint8_t>& bytes);

// "CN=dev, O=Kora" style one-line subject of a certificate.
std::string subject_line(const X509* cert);

}  // namespace kora::cli
