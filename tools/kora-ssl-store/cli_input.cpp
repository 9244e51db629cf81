// Reading and checking the files given on the command line.
#include "cli_input.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kora::cli {

FileBytes::~FileBytes() {
  if (!bytes_.empty()) {
    OPENSSL_cleanse(bytes_.data(), bytes_.size());
  }
}

bool read_input(const std::string& path, FileBytes* out, std::string* why) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    *why = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *why = "cannot read " + path + ": not a regular file";
    return false;
  }
  if (st.st_size == 0) {
    *why = path + " is empty";
    return false;
  }
  if (static_cast<unsigned long long>(st.st_size) > kMaxInputSize) {
    *why = path + " is larger than " + std::to_string(kMaxInputSize) + " bytes";
    return false;
  }
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    *why = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  std::vector<uint8_t>& bytes = out->bytes();
  bytes.resize(static_cast<size_t>(st.st_size));
  const size_t got = std::fread(bytes.data(), 1, bytes.size(), f);
  const bool read_error = std::ferror(f) != 0;
  (void)std::fclose(f);
  if (read_error || got != bytes.size()) {
    OPENSSL_cleanse(bytes.data(), bytes.size());
    bytes.clear();
    *why = "cannot read " + path + ": short read";
    return false;
  }
  return true;
}

X509Ptr parse_certificate(const std::vector<uint8_t>& bytes) {
  BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (!bio) {
    return nullptr;
  }
  X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  if (!cert) {
    const unsigned char* p = bytes.data();
    cert.reset(d2i_X509(nullptr, &p, static_cast<long>(bytes.size())));
  }
  ERR_clear_error();
  return cert;
}

EvpPkeyPtr parse_private_key(const std::vector<uint8_t>& bytes) {
  BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (!bio) {
    return nullptr;
  }
  // No password callback: an encrypted key is refused rather than prompting.
  char empty[] = "";
  EvpPkeyPtr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, empty));
  if (!key) {
    const unsigned char* p = bytes.data();
    key.reset(d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(bytes.size())));
  }
  ERR_clear_error();
  return key;
}

int count_pem_certificates(const std::vector<uint8_t>& bytes) {
  BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (!bio) {
    return -1;
  }
  int count = 0;
  for (;;) {
    X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!cert) {
      break;
    }
    ++count;
  }
  // The loop ends at the end of the text (no start line found) or at a broken entry.
  const unsigned long err = ERR_peek_last_error();
  ERR_clear_error();
  if (err != 0 && ERR_GET_REASON(err) != PEM_R_NO_START_LINE) {
    return -1;
  }
  return count;
}

std::string subject_line(const X509* cert) {
  if (cert == nullptr) {
    return "(none)";
  }
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || X509_NAME_print_ex(bio.get(), X509_get_subject_name(cert), 0,
                                 XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB) < 0) {
    return "(unprintable)";
  }
  char* data = nullptr;
  const long len = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(len));
}

}  // namespace kora::cli
