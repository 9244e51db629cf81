// Substitute flash file service: real files, a put that can be made to fail, and a record of
// the calls.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kora::fake_efs {

struct PutCall {
  std::string path;
  int oflag;
  int mode;
};

extern int fail_put_on_call;        // the n-th efs_put from now (1 = the next) returns -1
extern std::optional<int> stat_rc;  // when set, efs_stat returns it whatever is on disk
extern int stat_calls;
extern std::vector<PutCall> puts;

}  // namespace kora::fake_efs
