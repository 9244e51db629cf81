// Files the tool writes for the user (der2pem OUT, csr --out).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kora::cli {

// Writes `size` bytes to `path` through a new temporary file beside it that is renamed into
// place: nothing is written through a symbolic link or into a FIFO planted at `path`, and a
// reader never sees half a file. An existing `path` (of any type) is replaced only when
// `replace` is set. False with the reason in *why; no temporary file is left behind.
bool write_output_file(const std::string& path, const uint8_t* data, size_t size, bool replace,
                       std::string* why);

}  // namespace kora::cli
