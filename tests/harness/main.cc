// Entry point of every test binary. The tests use the package's fixed paths and ports, start
// servers and add users: they refuse to run anywhere but inside the sandbox.
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  if (getenv("QSV_SANDBOX") == nullptr) {
    fprintf(stderr, "%s: run me through tests/harness/sandbox; I change the machine's fixed paths\n",
            argv[0]);
    return 2;
  }
  return RUN_ALL_TESTS();
}
