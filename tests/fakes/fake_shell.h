// Substitute shell command service: records every command with its length, then runs it
// through /bin/sh as the host service does.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace kora::fake_shell {

extern std::vector<std::pair<std::string, size_t>> calls;

}  // namespace kora::fake_shell
