// Reading and checking the files given on the command line.
#include "cli_input.h"

#include "cli_chain.h"

#include <openssl/crypto.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kora::cli {

namespace {

// Standard input can be read once per run: a second "-" (or --pass stdin) would find it used up.
bool g_stdin_taken = false;

bool read_stdin(SecureVector* out, std::string* why) {
  if (!claim_stdin(why)) {
    return false;
  }
  SecureVector& bytes = *out;
  uint8_t chunk[BUFSIZ];
  size_t got = 0;
  while ((got = std::fread(chunk, 1, sizeof chunk, stdin)) > 0 && bytes.size() <= kMaxInputSize) {
    bytes.insert(bytes.end(), chunk, chunk + std::min(got, kMaxInputSize + 1 - bytes.size()));
  }
  OPENSSL_cleanse(chunk, sizeof chunk);
  if (std::ferror(stdin) != 0) {
    *why = "cannot read standard input";
    return false;
  }
  if (bytes.empty()) {
    *why = "standard input is empty";
    return false;
  }
  if (bytes.size() > kMaxInputSize) {
    *why = "standard input holds more than " + std::to_string(kMaxInputSize) + " bytes";
    return false;
  }
  return true;
}

}  // namespace

bool claim_stdin(std::string* why) {
  if (g_stdin_taken) {
    *why = "standard input is already read for another input: give a file for this one";
    return false;
  }
  g_stdin_taken = true;
  return true;
}

bool read_input(const std::string& path, SecureVector* out, std::string* why) {
  if (path == kStdioPath) {
    return read_stdin(out, why);
  }
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
  SecureVector& bytes = *out;
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

std::string subject_line(const X509* cert) {
  return cert == nullptr ? "(none)" : name_line(X509_get_subject_name(cert));
}

}  // namespace kora::cli
