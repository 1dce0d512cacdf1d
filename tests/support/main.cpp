#include <gtest/gtest.h>

// Completions of the library run on the process's initial thread, which is
// the thread that runs the tests here.
int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
