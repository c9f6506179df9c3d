// The unit tests' entry point. Suites that bind fixed ports are started by ctest with
// LUMO_TEST_PRIVATE_NET=1 and then run in a network of their own (see PrivateNetwork.h).
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/PrivateNetwork.h"

int main(int argc, char** argv) {
  const char* wanted = std::getenv("LUMO_TEST_PRIVATE_NET");
  if (wanted != nullptr && std::strcmp(wanted, "1") == 0) {
    std::string why;
    if (!lumo::test::EnterPrivateNetwork(why))
      std::fprintf(stderr, "note: running on the shared network (%s)\n", why.c_str());
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
