// Test entry point: the process enters its sandbox before any test runs.
#include <string.h>

#include <gtest/gtest.h>

#include "tests/sandbox.h"

namespace {
bool listing_only(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (strcmp(argv[i], "--gtest_list_tests") == 0) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (!listing_only(argc, argv)) gk::test::enter_sandbox();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
