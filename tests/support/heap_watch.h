// A watch on the heap of a test program: every block the product hands to free() (linked with
// --wrap) or to OpenSSL's allocator is looked at before it goes back, so a test can state that
// no released block still held a secret, and count the blocks still live to see a leak.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kora::test::heap {

// False when OpenSSL had allocated before the watch could install its functions.
bool watching();
// Counts, from now on, released blocks that still hold any of these byte strings.
void watch_secrets(std::vector<std::string> secrets);
// Those released by the product's own free(), plus those released through OpenSSL's allocator
// unless only_own: OpenSSL's readers free their copies of what they parse unwiped.
int secret_releases(bool only_own = false);
// Blocks handed out by the product's malloc/calloc/realloc or OpenSSL's allocator, not released.
long live_blocks();
bool is_live(const void* block);
// The product's next calloc(n, size) with exactly these arguments returns null.
void refuse_next_calloc(size_t n, size_t size);

}  // namespace kora::test::heap
