// Main of every test program: the whole process runs in a private mount namespace with a
// fresh tmpfs under /data, so nothing a test does reaches the host's tree.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "heap_watch.h"
#include "private_root.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string why = GTEST_FLAG_GET(list_tests) ? "" : kora::test::enter_private_store_root();
  if (!why.empty()) {
    std::fprintf(stderr, "cannot set up the private store root: %s\n", why.c_str());
    return 2;
  }
  if (!kora::test::heap::watching()) {  // also links the heap watch into every program
    std::fprintf(stderr, "OpenSSL allocated before the heap watch could see it\n");
  }
  // ctest runs every case in a process of its own, so a death test forks a process that has
  // started no thread yet: the plain fork style is safe, and it also works under user-mode
  // emulation, where re-executing the test program is not possible.
  GTEST_FLAG_SET(death_test_style, "fast");
  return RUN_ALL_TESTS();
}
