// Substitute flash file service: real files, with a put that can be made to fail, and a
// record of every call's arguments.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kora::fake_efs {

struct PutCall {
  std::string path;
  std::vector<uint8_t> data;
  int oflag;
  int mode;
};

void reset();
// The n-th efs_put from now (1 = the next one) returns -1 without touching the file.
void fail_put_on_call(int n);
// efs_stat returns `rc` from now on whatever the file system holds.
void force_stat(int rc);
const std::vector<PutCall>& puts();
const std::vector<std::string>& stats();

}  // namespace kora::fake_efs
