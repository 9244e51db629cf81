// Pass phrases: from the command line, the environment, a file, standard input or a prompt.
#include "cli_pass.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kora::cli {
namespace {

constexpr std::string_view kPassPrefix = "pass:";
constexpr std::string_view kEnvPrefix = "env:";
constexpr std::string_view kFilePrefix = "file:";
constexpr std::string_view kStdinWord = "stdin";

bool starts_with(const std::string& s, std::string_view prefix) { return s.rfind(prefix, 0) == 0; }

void assign(SecureVector* out, const char* text, size_t size) {
  out->assign(reinterpret_cast<const uint8_t*>(text), reinterpret_cast<const uint8_t*>(text) + size);
}

// Keeps the first line of `text` (without its line break) as the phrase.
void keep_first_line(SecureVector* text) {
  SecureVector& b = *text;
  const auto end = std::find_if(b.begin(), b.end(), [](uint8_t c) { return c == '\n' || c == '\r'; });
  std::fill(end, b.end(), 0);
  b.resize(static_cast<size_t>(end - b.begin()));
}

}  // namespace

std::string pass_spec_problem(const std::string& spec) {
  if (starts_with(spec, kPassPrefix) || starts_with(spec, kFilePrefix) || spec == kStdinWord) {
    return "";
  }
  if (starts_with(spec, kEnvPrefix) && spec.size() > kEnvPrefix.size()) {
    return "";
  }
  return "--pass takes " + std::string(kPassSources);
}

bool PassPhrase::fetch_from_source(SecureVector* text, std::string* why) {
  if (starts_with(spec_, kPassPrefix)) {
    assign(text, spec_.c_str() + kPassPrefix.size(), spec_.size() - kPassPrefix.size());
    return true;
  }
  if (starts_with(spec_, kEnvPrefix)) {
    const std::string var = spec_.substr(kEnvPrefix.size());
    const char* value = std::getenv(var.c_str());
    if (value == nullptr) {
      *why = "the environment variable " + var + " named by --pass is not set: export it";
      return false;
    }
    assign(text, value, std::strlen(value));
    return true;
  }
  if (starts_with(spec_, kFilePrefix)) {
    if (!read_input(spec_.substr(kFilePrefix.size()), text, why)) {
      return false;
    }
    keep_first_line(text);
    return true;
  }
  if (spec_ == kStdinWord) {
    if (!read_input(kStdioPath, text, why)) {
      return false;
    }
    keep_first_line(text);
    return true;
  }
  // No source: a terminal prompt, read by OpenSSL from the terminal itself.
  if (::isatty(STDIN_FILENO) == 0) {
    *why = "encrypted; give its pass phrase with --pass " + std::string(kPassSources);
    return false;
  }
  SecureVector buf(PEM_BUFSIZE);
  char* line = reinterpret_cast<char*>(buf.data());
  const std::string prompt = "pass phrase for " + what_ + ":";
  const bool ok = EVP_read_pw_string(line, static_cast<int>(buf.size()), prompt.c_str(), 0) == 0;
  if (ok) {
    assign(text, line, std::strlen(line));
  } else {
    *why = "no pass phrase read for " + what_;
  }
  return ok;
}

bool PassPhrase::fetch(std::string* why) {
  asked_ = true;
  if (!fetched_) {
    problem_.clear();
    if (!fetch_from_source(&phrase_, &problem_)) {
      *why = problem_;
      return false;
    }
    fetched_ = true;
  }
  return true;
}

int PassPhrase::pem_callback(char* buf, int size, int /*rwflag*/, void* user) {
  auto* self = static_cast<PassPhrase*>(user);
  std::string why;
  if (self == nullptr || size <= 0 || !self->fetch(&why)) {
    return -1;
  }
  if (self->size() > static_cast<size_t>(size)) {
    self->problem_ =
        "the pass phrase for " + self->what_ + " is longer than " + std::to_string(size) + " bytes";
    return -1;
  }
  std::memcpy(buf, self->data(), self->size());
  return static_cast<int>(self->size());
}

}  // namespace kora::cli
