// Test programs link with -Wl,--wrap for malloc, calloc, realloc and free, so the product's own
// calls land here; OpenSSL's go through CRYPTO_set_mem_functions, installed during static
// initialisation before OpenSSL allocates anything.
#include "heap_watch.h"

#include <malloc.h>
#include <openssl/crypto.h>

#include <cstring>
#include <mutex>
#include <unordered_map>
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
  std::unordered_map<const void*, bool> live;  // block: allocated while secrets are watched
  std::vector<std::string> secrets;
  int own_secret_releases = 0, openssl_secret_releases = 0;
  std::pair<size_t, size_t> refused_calloc{0, 0};
};
State& state() {
  static auto* s = new State;  // intended: outlives every static destructor that frees
  return *s;
}

// Only blocks allocated while secrets are watched are searched, and their bytes start zeroed:
// a secret found was written during the block's life, not left by an earlier user of the
// memory, and no byte searched is undefined (valgrind). A moved block keeps its first `kept`
// bytes and its mark.
void* added(void* p, size_t kept = 0, bool watched_before = false) {
  if (p != nullptr) {
    const std::lock_guard<std::mutex> guard(state().lock);
    const bool watched = !state().secrets.empty() && (kept == 0 || watched_before);
    state().live[p] = watched;
    const size_t size = malloc_usable_size(p);
    if (watched && kept < size) {
      std::memset(static_cast<char*>(p) + kept, 0, size - kept);
    }
  }
  return p;
}

// Whether p was searchable; it is no longer tracked.
bool forget(void* p) {
  const std::lock_guard<std::mutex> guard(state().lock);
  const auto node = state().live.extract(p);
  return !node.empty() && node.mapped();
}

void releasing(void* p, bool by_openssl) {
  if (p == nullptr || !forget(p)) {
    return;
  }
  State& s = state();
  const std::lock_guard<std::mutex> guard(s.lock);
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

bool refused(size_t n, size_t size) {
  const std::lock_guard<std::mutex> guard(state().lock);
  if (n == 0 || state().refused_calloc != std::make_pair(n, size)) {
    return false;
  }
  state().refused_calloc = {0, 0};
  return true;
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

void refuse_next_calloc(size_t n, size_t size) {
  const std::lock_guard<std::mutex> guard(state().lock);
  state().refused_calloc = {n, size};
}

}  // namespace kora::test::heap

extern "C" {
void* __wrap_malloc(size_t n) { return kora::test::heap::added(__real_malloc(n)); }
void* __wrap_calloc(size_t n, size_t size) {
  return kora::test::heap::refused(n, size) ? nullptr : kora::test::heap::added(__real_calloc(n, size));
}
void* __wrap_realloc(void* p, size_t n) {
  const size_t kept = p != nullptr ? malloc_usable_size(p) : 0;
  void* moved = __real_realloc(p, n);
  const bool watched = moved != nullptr && kora::test::heap::forget(p);
  return kora::test::heap::added(moved, kept, watched);
}
void __wrap_free(void* p) {
  kora::test::heap::releasing(p, false);
  __real_free(p);
}
}
