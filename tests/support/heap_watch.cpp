// Test programs link with -Wl,--wrap for malloc, calloc, realloc and free, so the product's own
// calls land here; OpenSSL's go through CRYPTO_set_mem_functions, installed during static
// initialisation before OpenSSL allocates anything.
#include "heap_watch.h"

#include <malloc.h>
#include <openssl/crypto.h>

#include <cstring>
#include <mutex>
#include <unordered_set>
#include <utility>

extern "C" {
void* __real_malloc(size_t n);
void* __real_calloc(size_t n, size_t size);
void* __real_realloc(void* p, size_t n);
void __real_free(void* p);
void* __wrap_realloc(void* p, size_t n);
}

namespace kora::test::heap {
namespace {

struct State {
  std::mutex lock;
  std::unordered_set<const void*> live;
  std::vector<std::string> secrets;
  int own_secret_releases = 0, openssl_secret_releases = 0;
};
State& state() {
  static auto* s = new State;  // intended: outlives every static destructor that frees
  return *s;
}

// While secrets are watched, new bytes start zeroed, so that a secret found in a released block
// was written during its life, not left behind by an earlier user of the memory. From `from` on.
void* added(void* p, size_t from = 0) {
  if (p != nullptr) {
    const std::lock_guard<std::mutex> guard(state().lock);
    state().live.insert(p);
    const size_t size = malloc_usable_size(p);
    if (!state().secrets.empty() && from < size) {
      std::memset(static_cast<char*>(p) + from, 0, size - from);
    }
  }
  return p;
}

void forget(void* p) {
  const std::lock_guard<std::mutex> guard(state().lock);
  state().live.erase(p);
}

void releasing(void* p, bool by_openssl) {
  if (p == nullptr) {
    return;
  }
  State& s = state();
  const std::lock_guard<std::mutex> guard(s.lock);
  s.live.erase(p);
  for (const std::string& secret : s.secrets) {
    if (memmem(p, malloc_usable_size(p), secret.data(), secret.size()) != nullptr) {
      ++(by_openssl ? s.openssl_secret_releases : s.own_secret_releases);
    }
  }
}

void* crypto_malloc(size_t n, const char* /*file*/, int /*line*/) { return added(__real_malloc(n)); }
void* crypto_realloc(void* p, size_t n, const char* /*file*/, int /*line*/) { return __wrap_realloc(p, n); }
void crypto_free(void* p, const char* /*file*/, int /*line*/) {
  releasing(p, true);
  __real_free(p);
}

const bool g_watching = CRYPTO_set_mem_functions(&crypto_malloc, &crypto_realloc, &crypto_free) == 1;

}  // namespace

bool watching() { return g_watching; }

void watch_secrets(std::vector<std::string> secrets) {
  const std::lock_guard<std::mutex> guard(state().lock);
  state().secrets = std::move(secrets);
  state().own_secret_releases = state().openssl_secret_releases = 0;
}

int secret_releases(bool only_own) {
  const std::lock_guard<std::mutex> guard(state().lock);
  return state().own_secret_releases + (only_own ? 0 : state().openssl_secret_releases);
}

long live_blocks() {
  const std::lock_guard<std::mutex> guard(state().lock);
  return static_cast<long>(state().live.size());
}

bool is_live(const void* block) {
  const std::lock_guard<std::mutex> guard(state().lock);
  return state().live.count(block) != 0;
}

}  // namespace kora::test::heap

extern "C" {
void* __wrap_malloc(size_t n) { return kora::test::heap::added(__real_malloc(n)); }
void* __wrap_calloc(size_t n, size_t size) { return kora::test::heap::added(__real_calloc(n, size)); }
void* __wrap_realloc(void* p, size_t n) {
  const size_t kept = p != nullptr ? malloc_usable_size(p) : 0;
  void* moved = __real_realloc(p, n);
  if (moved != nullptr) {
    kora::test::heap::forget(p);
  }
  return kora::test::heap::added(moved, kept);
}
void __wrap_free(void* p) {
  kora::test::heap::releasing(p, false);
  __real_free(p);
}
}
