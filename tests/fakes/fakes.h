// Knobs and records of the substitute services. A test program compiles in only the fakes it
// needs; their C symbols then take the place of the host services.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kora::fake {

// Key service. Sealing puts "FKSL" in front of the bytes (no cryptography); unsealing
// refuses input without it.
enum class Generate { kOk, kFail, kNullBlob };  // kOk: 32 bytes 0xA0, 0xA1, ...
// kFailWithOutput returns -1 but leaves a heap buffer for the caller to free; kNoOutput returns
// 0 with a null buffer.
enum class Crypt { kOk, kFail, kFailWithOutput, kNoOutput };
inline constexpr size_t kBlobLength = 32;
extern Generate generate;
extern Crypt seal, unseal;
extern int generate_calls, crypt_calls;

// Flash file service on real files.
extern int fail_put_on_call;  // the n-th efs_put from now (1 = the next) returns -1
extern int stat_rc;           // when not 1, efs_stat returns it whatever is on disk
extern std::vector<std::string> put_paths;
extern std::vector<int> put_flags;  // oflag and mode of every put

// Random number service: the next call returns this when non-zero.
extern int random_fail_rc;

// Mutex shim that records every call: the result of each release is 0 (released) or 1
// (nothing held, tolerated).
extern int lock_count;
extern std::vector<int> unlock_results;

}  // namespace kora::fake
