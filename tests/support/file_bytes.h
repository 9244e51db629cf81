// The bytes of a file, for tests that look at what was written.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace kora::test {

// "" when the file cannot be read.
inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace kora::test
