// The environment of the viewer tests: one QApplication for the whole test
// binary (death-test children included), on the offscreen platform, and a
// temporary current directory, since the viewer reads and writes
// "zentiq.qry" and "zentiq.ini" there. Death-test children run in the same
// directory as their parent (handed down in ZENTIQ_APP_TEST_DIR), so that the
// parent can look at the files a child wrote.
#include <gtest/gtest.h>

#include "forms/forms.h"

#include <QApplication>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

class AppEnvironment : public ::testing::Environment {
public:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char *dir = std::getenv("ZENTIQ_APP_TEST_DIR");
    if (dir && *dir) {
      dir_ = dir;
    } else {
      char tmpl[] = "/tmp/zentiq_app_test_XXXXXX";
      ASSERT_NE(mkdtemp(tmpl), nullptr);
      dir_ = tmpl;
      owner_ = true;
      setenv("ZENTIQ_APP_TEST_DIR", tmpl, 1);
    }
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    // The repair journal goes into the test's folder, not the user's.
    setenv("XDG_DATA_HOME", (dir_ + "/share").c_str(), 1);
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
    if (owner_) {
      (void)chdir("/");
      std::filesystem::remove_all(dir_);
    }
  }

private:
  std::string dir_;
  bool owner_ = false;
};

const bool registered = [] {
  ::testing::AddGlobalTestEnvironment(new AppEnvironment);
  return true;
}();

} // namespace
