// CorvixTestEnvironment keeps the library initialised for the whole run of a test program, so that
// suites need no set-up of their own: kx::initializeCorvix(kUserAgent) before the first test,
// kx::terminateCorvix() after the last. A suite may still initialise on its own: the calls are counted.
// The process-wide default policies and headers are restored after every test, so a test may change
// them freely.
//
// Suites that watch the lifecycle itself, or the library's behaviour before initialisation, must start
// from an uninitialised library. For a suite whose name ends in "LifecycleTest", "LifetimeTest" or
// "UninitializedTest" the environment gives its initialisation back before each test and takes it again
// after it.
//
// TestMain.cpp registers it in every test program (tests/CMakeLists.txt links that main).
#pragma once

namespace kx::test {

struct CorvixTestEnvironment {
  static constexpr const char* kUserAgent = "kx-tests";

  // Hands the environment and its per-test listener to GoogleTest; once, before RUN_ALL_TESTS().
  static void Register();
};

}  // namespace kx::test
