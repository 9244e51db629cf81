#include "fake_efs.h"

#include <fcntl.h>
#include <unistd.h>

#include "fs_public.h"

namespace kora::fake_efs {
namespace {

struct State {
  int fail_countdown = 0;
  bool stat_forced = false;
  int stat_rc = 0;
  std::vector<PutCall> puts;
  std::vector<std::string> stats;
};

State& state() {
  static State s;
  return s;
}

}  // namespace

void reset() { state() = State{}; }
void fail_put_on_call(int n) { state().fail_countdown = n; }
void force_stat(int rc) {
  state().stat_forced = true;
  state().stat_rc = rc;
}
const std::vector<PutCall>& puts() { return state().puts; }
const std::vector<std::string>& stats() { return state().stats; }

}  // namespace kora::fake_efs

extern "C" int efs_stat(const char* path, fs_stat* buf) {
  auto& s = kora::fake_efs::state();
  s.stats.emplace_back(path);
  if (s.stat_forced) {
    return s.stat_rc;
  }
  return stat(path, buf) == 0 ? 0 : -1;
}

extern "C" int efs_put(const char* path, void* data, size_t length, int oflag, int mode) {
  auto& s = kora::fake_efs::state();
  const auto* bytes = static_cast<const uint8_t*>(data);
  s.puts.push_back({path, std::vector<uint8_t>(bytes, bytes + length), oflag, mode});
  if (s.fail_countdown > 0 && --s.fail_countdown == 0) {
    return -1;
  }
  const int fd = open(path, oflag, static_cast<mode_t>(mode));
  if (fd < 0) {
    return -1;
  }
  size_t done = 0;
  while (done < length) {
    const ssize_t n = write(fd, bytes + done, length - done);
    if (n <= 0) {
      close(fd);
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
  return static_cast<int>(length);
}
