// Linked into every test program: the environment every suite relies on, set
// before any test runs, so that a test binary behaves the same whether CTest,
// ./test.sh or a developer starts it by hand.
//   - QT_QPA_PLATFORM=offscreen: GUI suites never need a display.
//   - ZENTIQ_BUILD_DIR / ZENTIQ_SOURCE_DIR: where tests find the programs
//     (tavrind, tavrin, forms_demo) and the sources.
//   - LeakSanitizer suppressions for leaks inside system libraries only.
#include <cstdlib>

#ifndef ZENTIQ_BUILD_DIR_DEFAULT
#define ZENTIQ_BUILD_DIR_DEFAULT ""
#endif
#ifndef ZENTIQ_SOURCE_DIR_DEFAULT
#define ZENTIQ_SOURCE_DIR_DEFAULT ""
#endif

namespace {

struct TestEnvironment {
  TestEnvironment() {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    setenv("ZENTIQ_BUILD_DIR", ZENTIQ_BUILD_DIR_DEFAULT, 0);
    setenv("ZENTIQ_SOURCE_DIR", ZENTIQ_SOURCE_DIR_DEFAULT, 0);
  }
} g_test_environment;

} // namespace

// Read by LeakSanitizer at start-up (when built with it).
extern "C" const char *__lsan_default_suppressions() {
  return "leak:libfontconfig\n"
         "leak:libQt6\n"
         "leak:libdbus\n";
}

// Read by UndefinedBehaviorSanitizer at start-up (when built with it).
extern "C" const char *__ubsan_default_options() { return "print_stacktrace=1"; }
