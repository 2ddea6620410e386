// The main of every test program: GoogleTest/GoogleMock flags, then the shared library environment.
#include "support/CorvixTestEnvironment.h"

#include <gmock/gmock.h>

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  kx::test::CorvixTestEnvironment::Register();
  return RUN_ALL_TESTS();
}
