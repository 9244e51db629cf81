// The bytes of a file, for tests that look at what was written or write what a case needs.
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

// Makes `bytes` the whole content of the file at `path`; false when it cannot be written.
inline bool spill(const std::string& path, const std::string& bytes) {
  return !(std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes).fail();
}

}  // namespace kora::test
