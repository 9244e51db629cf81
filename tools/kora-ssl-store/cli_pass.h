// Pass phrases for encrypted private keys and PKCS#12 files, from the sources that OpenSSL's
// own tools take: pass:TEXT, env:VAR, file:PATH (its first line), stdin (its first line), or
// a prompt on the terminal when no source is given.
#pragma once

#include <string>

#include "cli_input.h"

namespace kora::cli {

// The words `--pass` accepts, for help texts and refusals.
inline constexpr const char* kPassSources = "pass:TEXT, env:VAR, file:PATH or stdin";

// Empty when `spec` names a pass source, else why not.
std::string pass_spec_problem(const std::string& spec);

class PassPhrase {
 public:
  // `spec` as given to --pass; empty to prompt on a terminal. `what` names the protected
  // file in the prompt and in refusals.
  PassPhrase(std::string spec, std::string what) : spec_(std::move(spec)), what_(std::move(what)) {}

  // Fetches the phrase once (later calls reuse it). False with the reason in *why.
  bool fetch(std::string* why);
  const char* data() const { return reinterpret_cast<const char*>(phrase_.data()); }
  size_t size() const { return phrase_.size(); }
  // Whether a decoder asked for the phrase: the input was encrypted.
  bool asked() const { return asked_; }
  // Why the last fetch failed; empty when it did not.
  const std::string& problem() const { return problem_; }

  // OpenSSL's pem_password_cb, with this object as user data: copies the phrase into `buf`.
  static int pem_callback(char* buf, int size, int rwflag, void* user);

 private:
  bool fetch_from_source(SecureVector* text, std::string* why);

  std::string spec_;
  std::string what_;
  SecureVector phrase_;
  bool fetched_ = false;
  bool asked_ = false;
  std::string problem_;
};

}  // namespace kora::cli
