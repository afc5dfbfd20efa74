// The Qt application of the GUI test programs (forms and framework): one
// QApplication for the whole test binary (also in death-test children), on the
// offscreen platform, with the toolkit started once under the program's name.
#include "tests/qt_env.h"

#include "forms/forms.h"

#include <QApplication>
#include <QTest>

#include <cerrno> // program_invocation_short_name
#include <cstdlib>

namespace {

class QtEnvironment : public ::testing::Environment {
public:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (!std::getenv("QT_QPA_PLATFORM")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
    static int argc = 1;
    static char *name = program_invocation_short_name;
    static char *argv[] = {name, nullptr};
    app_ = new QApplication(argc, argv);
    ASSERT_EQ(fl_init_toolkit(name, argv, -1), 1);
  }
  void TearDown() override {
    fl_exit_toolkit();
    delete app_;
    app_ = nullptr;
  }

private:
  // Deleted only in TearDown: a death-test child leaves through exit() with
  // its forms still open, and tearing the application down under them then
  // crashes instead of ending with the status the test expects.
  QApplication *app_ = nullptr;
};

::testing::Environment *const registered = ::testing::AddGlobalTestEnvironment(new QtEnvironment);

} // namespace

void show_and_activate(FL_FORM *form) {
  fl_show_form(form, FL_PLACE_CENTER, 1, "Test");
  form->window->activateWindow();
  (void)QTest::qWaitForWindowActive(form->window, 10000);
  QApplication::processEvents();
}
