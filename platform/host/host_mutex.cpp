// Host mutex shim: a process mutex that knows its holder. Legacy callers release twice on
// some paths and leave the lock held on others; both must behave as documented in
// ivra_mutex.h, so ownership is tracked here rather than left to pthread_mutex_unlock.
//
// Every store user on the host shares one tree (and one plain scratch file for CA lists), so
// a hold also serialises across processes: while any ivra mutex of this process is held, the
// process holds an exclusive flock on the store's data root directory. The kernel drops it
// when the process ends, however it ends. A hold that a store path keeps on purpose keeps the
// directory locked for as long as that process lives; another process waits at most
// KORA_SSL_LOCK_WAIT seconds (default 30; 0 waits for ever) and then ends with a diagnostic
// naming the holder's pid, rather than going on unserialised (its caller does not look at a
// failed lock) or hanging for good.
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <string_view>

#include "ivra_mutex.h"
#include "msg_diag.h"

namespace kora::host {
namespace {

constexpr const char* kLockedDir = KORA_HOST_LOCK_DIR;
constexpr int kDefaultWaitSeconds = 30;
constexpr int kExitLockTimeout = 75;  // EX_TEMPFAIL: try again once the holder has ended

// The process's share of the host-wide lock. Reset in a forked child, which inherits the
// descriptor but not the hold.
struct HostLock {
  pthread_mutex_t guard = PTHREAD_MUTEX_INITIALIZER;
  pid_t pid = 0;
  int fd = -1;
  int holds = 0;  // ivra mutexes of this process currently held
};
HostLock g_host;

int wait_limit_seconds() {
  const char* env = std::getenv("KORA_SSL_LOCK_WAIT");
  if (env == nullptr || *env == '\0') {
    return kDefaultWaitSeconds;
  }
  char* end = nullptr;
  const long value = std::strtol(env, &end, 10);
  return (*end != '\0' || value < 0 || value > 86400) ? kDefaultWaitSeconds : static_cast<int>(value);
}

// The pid holding an flock on the inode of `fd`, from /proc/locks; 0 when not found.
long holder_pid(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    return 0;
  }
  // Private tmpfs mounts hand out the same inode numbers, so the device must match too.
  char here[64];
  (void)std::snprintf(here, sizeof here, "%02x:%02x:%lu", major(st.st_dev), minor(st.st_dev),
                      static_cast<unsigned long>(st.st_ino));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    // "1: FLOCK  ADVISORY  WRITE 4242 00:2d:1234 0 EOF"
    char kind[16] = {};
    long pid = 0;
    char where[64] = {};
    if (std::sscanf(line.c_str(), "%*[^:]: %15s %*s %*s %ld %63s", kind, &pid, where) != 3) {
      continue;
    }
    if (std::string_view(kind) == "FLOCK" && std::string_view(where) == here) {
      return pid;
    }
  }
  return 0;
}

[[noreturn]] void give_up(int fd, int waited) {
  static const msg_const_type kSite = {
      {static_cast<uint16_t>(__LINE__), 0, MSG_LEGACY_ERROR}, "%s", "host_mutex"};
  char text[256];
  (void)std::snprintf(text, sizeof text,
                      "ssl_mutex: %s has been locked by process %ld for more than %d s (a store path that "
                      "keeps the lock holds it until that process ends); giving up\n",
                      kLockedDir, holder_pid(fd), waited);
  msg_sprintf(&kSite, text);
  (void)std::fflush(stderr);  // where the host's sink writes; _exit flushes nothing
  _exit(kExitLockTimeout);
}

// Takes the flock on the data root within the wait limit. The directory may be removed and
// made again while we wait: the lock counts only on the one the path names now.
int lock_data_root() {
  const int limit = wait_limit_seconds();
  const time_t start = std::time(nullptr);
  long pause_ns = 1000000;
  for (;;) {
    // Followed if it is a link: a device may mount its data partition elsewhere.
    const int fd = ::open(kLockedDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
      return -1;  // no data root: the store has no file to keep apart
    }
    for (;;) {
      if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
        break;
      }
      if (errno != EWOULDBLOCK && errno != EINTR) {
        (void)::close(fd);
        return -1;
      }
      const int waited = static_cast<int>(std::time(nullptr) - start);
      if (limit != 0 && waited > limit) {
        give_up(fd, waited);
      }
      const timespec pause = {0, pause_ns};
      (void)::nanosleep(&pause, nullptr);
      pause_ns = pause_ns < 32000000 ? pause_ns * 2 : pause_ns;
    }
    struct stat held {};
    struct stat named {};
    if (::fstat(fd, &held) == 0 && ::stat(kLockedDir, &named) == 0 && held.st_ino == named.st_ino &&
        held.st_dev == named.st_dev) {
      return fd;
    }
    (void)::flock(fd, LOCK_UN);
    (void)::close(fd);
  }
}

// A scoped hold of a pthread mutex (the shim's own short-lived guards).
class GuardHold {
 public:
  explicit GuardHold(pthread_mutex_t* m) : m_(m) { (void)pthread_mutex_lock(m_); }
  ~GuardHold() { (void)pthread_mutex_unlock(m_); }
  GuardHold(const GuardHold&) = delete;
  GuardHold& operator=(const GuardHold&) = delete;

 private:
  pthread_mutex_t* m_;
};

void host_hold() {
  const GuardHold hold(&g_host.guard);
  if (g_host.pid != ::getpid()) {
    if (g_host.fd >= 0) {
      (void)::close(g_host.fd);  // the parent's descriptor: closing it leaves the parent's lock alone
    }
    g_host.pid = ::getpid();
    g_host.fd = -1;
    g_host.holds = 0;
  }
  if (g_host.holds++ == 0) {
    g_host.fd = lock_data_root();
  }
}

void host_release() {
  const GuardHold hold(&g_host.guard);
  if (g_host.pid == ::getpid() && g_host.holds > 0 && --g_host.holds == 0 && g_host.fd >= 0) {
    // Unlocked explicitly: a forked child may still share the descriptor.
    (void)::flock(g_host.fd, LOCK_UN);
    (void)::close(g_host.fd);
    g_host.fd = -1;
  }
}

}  // namespace

int mutex_lock(ivra_mutex_t* m) {
  if (m == nullptr) {
    return -1;
  }
  {
    const GuardHold hold(&m->guard);
    // The holder itself waits too: a hold never released blocks every later locker.
    while (m->held != 0) {
      pthread_cond_wait(&m->released, &m->guard);
    }
    m->held = 1;
    m->owner = pthread_self();
  }
  host_hold();
  return 0;
}

int mutex_unlock(ivra_mutex_t* m) {
  if (m == nullptr) {
    return -1;
  }
  const GuardHold hold(&m->guard);
  if (m->held == 0 || pthread_equal(m->owner, pthread_self()) == 0) {
    // A release without a hold (a second release on one path, or another thread's hold) is
    // tolerated and changes nothing.
    return 1;
  }
  m->held = 0;
  host_release();
  pthread_cond_signal(&m->released);
  return 0;
}

}  // namespace kora::host

extern "C" int ivra_mutex_lock(ivra_mutex_t* mutex) { return kora::host::mutex_lock(mutex); }

extern "C" int ivra_mutex_unlock(ivra_mutex_t* mutex) { return kora::host::mutex_unlock(mutex); }
