// Files the tool writes for the user (a CSR, a PEM conversion): created only where nothing
// stands yet, never through a symlink, never blocking on a FIFO.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kora::cli {

// How write_output_file treats a path that already exists.
enum class Existing { kRefuse, kReplace };

// Writes `size` bytes to `path`, or to standard output when `path` is "-". A new file gets
// mode 0644 less the umask. An existing path is refused unless kReplace is given, and even
// then only a regular file is replaced; a symlink is never followed. False with the reason
// in *why, a single line that says what to do.
bool write_output_file(const std::string& path, const uint8_t* data, size_t size, Existing existing,
                       std::string* why);

}  // namespace kora::cli
