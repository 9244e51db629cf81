#include <cstdlib>
#include <cstring>

#include "ds_system.h"
#include "fakes.h"

namespace kora::fake {
std::vector<std::string> shell_calls;
}  // namespace kora::fake

// Runs the command as far as the host would (up to `length` or a NUL) and records it.
extern "C" int ds_system_call(const char* command, size_t length) {
  const std::string line(command, strnlen(command, length));
  kora::fake::shell_calls.push_back(line + "|" + std::to_string(length));
  return std::system(line.c_str());
}
