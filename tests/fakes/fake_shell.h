// Substitute shell command service: records every command and its length, then runs it
// through /bin/sh as the host service does.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kora::fake_shell {

struct Call {
  std::string command;
  size_t length;
};

void reset();
const std::vector<Call>& calls();

}  // namespace kora::fake_shell
