// libFuzzer entry for one target of tests/testutil/fuzz_targets.h, chosen at
// compile time with -DFUZZ_TARGET=<function>. With FUZZ_MAKE_SEEDS=<dir> in
// the environment the program writes the seed corpora of every target below
// <dir> and exits instead of fuzzing.
#include <cstdio>
#include <cstdlib>

#include "testutil/fuzz_targets.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (const char* dir = getenv("FUZZ_MAKE_SEEDS")) {
    int n = testutil::fuzz_make_seeds(dir);
    fprintf(stderr, "wrote %d seed files below %s\n", n, dir);
    exit(n > 0 ? 0 : 1);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return testutil::FUZZ_TARGET(data, size);
}
