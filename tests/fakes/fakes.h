// Knobs and records of the substitute services; a test program compiles in the ones it needs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kora::fake {

// Key service: sealing puts "FKSL" in front of the bytes, unsealing refuses input without it.
enum class Generate { kOk, kFail, kNullBlob };  // kOk: 32 bytes 0xA0
enum class Crypt { kOk, kFail, kNoOutput };     // kNoOutput: 0 with a null buffer
inline constexpr size_t kBlobLength = 32;
extern Generate generate;
extern Crypt seal, unseal;
extern int generate_calls;

// Flash file service on real files.
extern int fail_put_on_call;                // the n-th efs_put from now (1 = the next) returns -1
extern std::vector<std::string> put_calls;  // "path oflag mode" of every put, in decimal

// Shell: "<command as run>|<length passed>" of every call.
extern std::vector<std::string> shell_calls;

// Mutex shim (linked with --wrap=ivra_mutex_unlock): the result of every release (1: nothing
// held, tolerated).
extern std::vector<int> unlock_results;

}  // namespace kora::fake
