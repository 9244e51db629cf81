// Main of the benchmark programs: the whole process runs in a private mount namespace with
// a fresh tmpfs under /data, so the store root and the key service's root key live in
// memory and nothing reaches the host's tree.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "private_root.h"

int main(int argc, char** argv) {
  const std::string why = kora::test::enter_private_store_root();
  if (!why.empty()) {
    std::fprintf(stderr, "cannot set up the private store root (run as root): %s\n", why.c_str());
    return 2;
  }
  ::mkdir("/data/km", 0700);
  ::setenv("KORA_KM_ROOT_KEY", "/data/km/root.key", 1);

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
