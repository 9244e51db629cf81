// Command-line parsing: positional words, options with a value ("--cert FILE") and flags.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace kora::cli {

struct OptionSpec {
  std::set<std::string> with_value;  // e.g. "--cert"
  std::set<std::string> flags;       // e.g. "--tls1.3"
};

struct Args {
  std::vector<std::string> positional;        // words after the command
  std::map<std::string, std::string> values;  // "--cert" -> "dev.pem"
  std::set<std::string> flags;                // "--tls1.3"
  bool help = false;
  bool verbose = false;

  bool has(const std::string& option) const { return values.count(option) != 0 || flags.count(option) != 0; }
  std::string value(const std::string& option) const;
};

// Parses the words after the command name. On a word it does not know, returns false and
// puts the reason in *why. "-v"/"--verbose" and "-h"/"--help" are accepted everywhere.
bool parse_args(const std::vector<std::string>& words, const OptionSpec& spec, Args* out, std::string* why);

// A decimal number from `low` to `high` (at most 9 digits, nothing else) into *out.
bool parse_number(const std::string& text, int low, int high, int* out);

}  // namespace kora::cli
