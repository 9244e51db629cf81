// Host shell command service: runs one command line through /bin/sh and waits for it.
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "ds_system.h"

extern char** environ;

namespace kora::host {
namespace {

// Spawn attributes: the child starts with no blocked signals and default dispositions,
// whatever the calling thread has set up.
struct SpawnAttr {
  posix_spawnattr_t attr{};
  bool ok = false;
  SpawnAttr() {
    if (posix_spawnattr_init(&attr) != 0) {
      return;
    }
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    ok = posix_spawnattr_setsigmask(&attr, &none) == 0 && posix_spawnattr_setsigdefault(&attr, &all) == 0 &&
         posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
  }
  ~SpawnAttr() { posix_spawnattr_destroy(&attr); }
  SpawnAttr(const SpawnAttr&) = delete;
  SpawnAttr& operator=(const SpawnAttr&) = delete;
};

}  // namespace

// Runs the first `length` characters of `command` (it stops earlier at a NUL) with
// /bin/sh -c. Returns the shell's exit status, 128 + the signal number when the shell was
// killed by a signal, or -1 when it could not be run.
int run_shell(const char* command, size_t length) {
  if (command == nullptr) {
    return -1;
  }
  std::string line(command, strnlen(command, length));
  SpawnAttr attr;
  if (!attr.ok) {
    return -1;
  }
  char sh[] = "/bin/sh";
  char dash_c[] = "-c";
  char* argv[] = {sh, dash_c, line.data(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, sh, nullptr, &attr.attr, argv, environ) != 0) {
    return -1;
  }
  // Wait for this child only, so commands run from several threads do not reap each other.
  int status = 0;
  pid_t r = -1;
  do {
    r = waitpid(pid, &status, 0);
  } while (r < 0 && errno == EINTR);
  if (r != pid) {
    return -1;
  }
  if (WIFEXITED(status)) {
    return WEXITSTATUS(status);
  }
  if (WIFSIGNALED(status)) {
    return 128 + WTERMSIG(status);
  }
  return -1;
}

}  // namespace kora::host

extern "C" int ds_system_call(const char* command, size_t length) {
  return kora::host::run_shell(command, length);
}
