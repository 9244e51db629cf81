#include "heap_counter.h"

#include <cstddef>
#include <cstdlib>

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* ptr, size_t size);
void __real_free(void* ptr);
}

namespace kora::bench {
namespace {

// Blocks allocated while counting, with their requested sizes. A fixed table, so that the
// counter itself never allocates; the parser makes one block, so a few slots are plenty.
struct Block {
  void* ptr;
  size_t size;
};
constexpr size_t kSlots = 256;
Block g_blocks[kSlots];
bool g_counting = false;
size_t g_live = 0;
size_t g_peak = 0;

void note_alloc(void* ptr, size_t size) {
  if (!g_counting || ptr == nullptr) {
    return;
  }
  for (Block& b : g_blocks) {
    if (b.ptr == nullptr) {
      b = {ptr, size};
      break;
    }
  }
  g_live += size;
  if (g_live > g_peak) {
    g_peak = g_live;
  }
}

void note_free(void* ptr) {
  if (!g_counting || ptr == nullptr) {
    return;
  }
  for (Block& b : g_blocks) {
    if (b.ptr == ptr) {
      g_live -= b.size;
      b = {nullptr, 0};
      return;
    }
  }
}

}  // namespace

void heap_count_start() {
  for (Block& b : g_blocks) {
    b = {nullptr, 0};
  }
  g_live = 0;
  g_peak = 0;
  g_counting = true;
}

size_t heap_count_stop() {
  g_counting = false;
  return g_peak;
}

}  // namespace kora::bench

extern "C" {

void* __wrap_malloc(size_t size) {
  void* p = __real_malloc(size);
  kora::bench::note_alloc(p, size);
  return p;
}

void* __wrap_calloc(size_t count, size_t size) {
  void* p = __real_calloc(count, size);
  kora::bench::note_alloc(p, count * size);
  return p;
}

void* __wrap_realloc(void* ptr, size_t size) {
  kora::bench::note_free(ptr);
  void* p = __real_realloc(ptr, size);
  kora::bench::note_alloc(p, size);
  return p;
}

void __wrap_free(void* ptr) {
  kora::bench::note_free(ptr);
  __real_free(ptr);
}

}  // extern "C"
