// Memory for cached keys: whole pages of their own, locked in RAM (never swapped out),
// left out of core dumps, and wiped before they are unmapped.
#include <openssl/crypto.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "host_km.h"

namespace kora::km {
namespace {

size_t page_span(size_t size) {
  const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  return (size + page - 1) / page * page;
}

}  // namespace

void* locked_alloc(size_t size) {
  const size_t span = page_span(size);
  // An anonymous mapping takes -1 as its descriptor.
  // cppcheck-suppress invalidFunctionArg
  void* p = ::mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    fail(kErrNoMemory, "no memory for the key cache");
    return nullptr;
  }
  if (::mlock(p, span) != 0 || ::madvise(p, span, MADV_DONTDUMP) != 0) {
    (void)::munmap(p, span);
    fail(kErrNoMemory, "cannot lock the key cache in memory or keep it out of core dumps (RLIMIT_MEMLOCK?)");
    return nullptr;
  }
  return p;
}

void locked_free(void* p, size_t size) {
  if (p == nullptr) {
    return;
  }
  const size_t span = page_span(size);
  OPENSSL_cleanse(p, span);
  (void)::munlock(p, span);
  (void)::munmap(p, span);
}

void wipe_keys_at_exit() {
  static std::once_flag once;
  std::call_once(once, [] { (void)std::atexit(forget_keys); });
}

}  // namespace kora::km
