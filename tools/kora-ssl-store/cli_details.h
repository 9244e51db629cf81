// What `ls -l` and `show` tell about a stored credential, read back from the store. Never a
// key byte: a private key is described by its type and size, a PSK table by its identities.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "cli_names.h"

namespace kora::cli {

// A certificate that ends within this many days is marked in listings.
inline constexpr int kExpiryWarningDays = 30;

struct Field {
  const char* key;    // member name in JSON, e.g. "not_after"
  const char* label;  // label in text, e.g. "not after"
  std::variant<std::string, int64_t, std::vector<std::string>> value;
};

struct Record {
  Kind kind;
  std::string name;
  std::vector<Field> fields;
};

// The details of credential `name` of `kind`. A certificate name whose certificate is not
// stored yet but whose key is (made by `csr`) is described as such. False with the reason in
// *why when nothing of that kind and name can be read.
bool describe(const Kind& kind, const std::string& name, Record* out, std::string* why);

}  // namespace kora::cli
