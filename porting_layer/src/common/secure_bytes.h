// Bytes that hold key material or plain credentials: one malloc'd block, released with
// OPENSSL_clear_free (wiped, then handed to OpenSSL's free, which is free() unless a test
// watches it) on every path. malloc rather than OPENSSL_malloc, because such blocks cross the
// C interface both ways: the store's read call hands out malloc'd plain bytes, and the key
// service hands its plain bytes to callers that free() them.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

namespace kora {

class SecureBytes {
 public:
  SecureBytes() = default;
  // A block of `size` bytes (one byte at least is allocated), zero-filled when asked; data() is
  // null when memory ran out.
  explicit SecureBytes(size_t size, bool zeroed = false)
      : data_(static_cast<uint8_t*>(zeroed ? std::calloc(size > 0 ? size : 1, 1)
                                           : std::malloc(size > 0 ? size : 1))),
        size_(size) {}
  // Takes a malloc'd block handed out through a C call (null is fine).
  static SecureBytes adopt(void* data, size_t size) {
    SecureBytes bytes;
    bytes.data_ = static_cast<uint8_t*>(data);
    bytes.size_ = size;
    return bytes;
  }
  SecureBytes(SecureBytes&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  SecureBytes& operator=(SecureBytes&& other) noexcept {
    if (this != &other) {
      reset();
      data_ = std::exchange(other.data_, nullptr);
      size_ = std::exchange(other.size_, 0);
    }
    return *this;
  }
  SecureBytes(const SecureBytes&) = delete;
  SecureBytes& operator=(const SecureBytes&) = delete;
  ~SecureBytes() { reset(); }

  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

  // Hands the block out unwiped, at the call that takes it over.
  uint8_t* release() {
    size_ = 0;
    return std::exchange(data_, nullptr);
  }
  void reset() {
    if (data_ != nullptr) {
      OPENSSL_clear_free(std::exchange(data_, nullptr), size_);
    }
    size_ = 0;
  }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// Allocator for growable buffers of key material: every block it gives back (on growth,
// shrinking or destruction) is wiped with OPENSSL_clear_free, so no copy is left behind.
template <typename T>
struct ClearingAllocator {
  using value_type = T;

  ClearingAllocator() = default;
  template <typename U>
  constexpr ClearingAllocator(const ClearingAllocator<U>& /*other*/) noexcept {}

  T* allocate(size_t n) {
    if (n > SIZE_MAX / sizeof(T)) {
      throw std::bad_alloc();
    }
    // OPENSSL_malloc(0) gives null, which would read as running out of memory.
    void* block = OPENSSL_malloc(n > 0 ? n * sizeof(T) : 1);
    if (block == nullptr) {
      throw std::bad_alloc();
    }
    return static_cast<T*>(block);
  }
  void deallocate(T* block, size_t n) noexcept { OPENSSL_clear_free(block, n * sizeof(T)); }

  template <typename U>
  bool operator==(const ClearingAllocator<U>& /*other*/) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(const ClearingAllocator<U>& /*other*/) const noexcept {
    return false;
  }
};

// Growable key material or plain credentials (files read by the tool, encoded keys, PINs).
using SecureVector = std::vector<uint8_t, ClearingAllocator<uint8_t>>;

}  // namespace kora
