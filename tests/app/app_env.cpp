// The environment of the viewer tests: one QApplication for the whole test
// binary (death-test children included), on the offscreen platform, and a
// temporary current directory, since the viewer reads and writes
// "zentiq.qry" and "zentiq.ini" there. Death-test children run in the same
// directory as their parent (handed down in ZENTIQ_APP_TEST_DIR), so that the
// parent can look at the files a child wrote.
#include <gtest/gtest.h>

#include "forms/forms.h"
#include "tests/scratch.h"

#include <QApplication>
#include <cstdlib>
#include <optional>
#include <string>
#include <unistd.h>

namespace {

class AppEnvironment : public ::testing::Environment {
public:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char *dir = std::getenv("ZENTIQ_APP_TEST_DIR");
    if (!dir || !*dir) {
      dir = folder_.emplace("app_test").path().c_str();
      setenv("ZENTIQ_APP_TEST_DIR", dir, 1);
    }
    ASSERT_EQ(chdir(dir), 0);
    // The repair journal goes into the test's folder, not the user's.
    setenv("XDG_DATA_HOME", (std::string(dir) + "/share").c_str(), 1);
    static int argc = 1;
    static char name[] = "app_tests";
    static char *argv[] = {name, nullptr};
    // Kept to the end of the process and never destroyed: a test that ends
    // the program with exit() leaves the toolkit's windows to the system.
    static QApplication *app = new QApplication(argc, argv);
    (void)app;
  }
  void TearDown() override {
    if (fl_toolkit_initialised()) fl_exit_toolkit();
    folder_.reset(); // when this process made it: back where it began, the folder gone
  }

private:
  std::optional<scratch::ScratchDir> folder_;
};

::testing::Environment *const registered = ::testing::AddGlobalTestEnvironment(new AppEnvironment);

} // namespace
