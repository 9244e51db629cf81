// Command-line parsing for every subcommand.
#include "cli_args.h"

namespace kora::cli {

std::string Args::value(const std::string& option) const {
  const auto it = values.find(option);
  return it == values.end() ? std::string() : it->second;
}

bool parse_number(const std::string& text, int low, int high, int* out) {
  const bool digits =
      !text.empty() && text.size() <= 9 && text.find_first_not_of("0123456789") == std::string::npos;
  const int number = digits ? std::stoi(text) : low - 1;
  if (number < low || number > high) {
    return false;
  }
  *out = number;
  return true;
}

bool parse_args(const std::vector<std::string>& words, const OptionSpec& spec, Args* out, std::string* why) {
  bool options_end = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (options_end || w.size() < 2 || w[0] != '-') {
      out->positional.push_back(w);
      continue;
    }
    if (w == "--") {
      options_end = true;
    } else if (w == "-v" || w == "--verbose") {
      out->verbose = true;
    } else if (w == "-h" || w == "--help") {
      out->help = true;
    } else if (spec.flags.count(w) != 0) {
      out->flags.insert(w);
    } else if (spec.with_value.count(w) != 0) {
      if (i + 1 >= words.size()) {
        *why = "option " + w + " needs a value";
        return false;
      }
      if (out->values.count(w) != 0) {
        *why = "option " + w + " given twice";
        return false;
      }
      out->values[w] = words[++i];
    } else {
      *why = "unknown option " + w;
      return false;
    }
  }
  return true;
}

}  // namespace kora::cli
