// Helpers of the framework and viewer tests: the headers they share, the
// program's messages collected, fatal misuses checked in a death-test child,
// file contents, a fixture that runs each test in a private temporary folder
// and frees its form, and the one TAVRIN server of a test program.
#pragma once

#include "base/ini.h"
#include "framework/combo.h"
#include "framework/dbtabbox.h"
#include "framework/fields.h"
#include "framework/help.h"
#include "framework/place.h"
#include "tests/tavrind_fixture.h"
#include "tests/forms/forms_testutil.h" // last: it includes Qt

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>

namespace zqtest {

using namespace forms_test;

// What the program reported through its message handler.
inline std::string &messages() {
  static std::string text;
  return text;
}
inline void collect(const char *text) { messages() += text; }
inline void to_stderr(const char *text) { std::fputs(text, stderr); }

inline constexpr auto &slurp = scratch::read_file;
using scratch::write_file;

// The server of this test program, started on first use and stopped at exit
// (death-test children run as processes of their own and start their own);
// nullptr when none could be started.
inline tavrind_fixture::Server *test_server() {
  static tavrind_fixture::Server server;
  static const bool up = [] {
    if (server.start()) return true;
    std::fprintf(stderr, "no server: %s\n", server.why().c_str());
    return false;
  }();
  return up ? &server : nullptr;
}

// The folder of the running test, its current directory. A death-test child
// runs the test from its start and ends in exit() without tearing down: the
// folder goes at exit.
inline std::optional<scratch::ScratchDir> &test_folder() {
  static std::optional<scratch::ScratchDir> folder;
  return folder;
}

// Each test in a fresh temporary folder that is the current directory, with
// the application named `appl` (so its INI and help files land there), the
// messages collected and the recorded boxes cleared. The test's form (form_)
// is freed at the end together with its managed tabbox (tb_) and the combo
// boxes, fields, help buttons and form information registered on it; so are
// the tabbox settings hooks a test may have installed.
class FormTest : public ::testing::Test {
protected:
  explicit FormTest(const char *appl = "app") : appl_(appl) {}
  void SetUp() override {
    dir_ = test_folder().emplace("fwtest").path();
    myfl_set_appl_name(appl_);
    messages().clear();
    msg_set_handler(collect);
    fl_seam_clear();
  }
  void free_form() {
    if (!form_) return;
    if (tb_ && myfl_find_tabbox(tb_)) myfl_free_tabbox(tb_);
    myfl_free_form_cmbs(form_);
    myfl_free_fields(form_);
    myfl_free_helpdialogs(form_);
    myfl_free_forminfo(form_);
    fl_free_form(form_);
    form_ = nullptr;
  }
  void TearDown() override {
    free_form();
    msg_set_handler(nullptr);
    fl_set_tabbox_settings_hook(nullptr);
    fl_set_tabbox_colwidth_hook(nullptr);
    fl_set_tabbox_optimize_hook(nullptr);
    fl_set_tabbox_refresh_hook(nullptr);
    myfl_set_appl_name("zentiq");
    test_folder().reset();
  }
  // The line of the key in the application's INI file; "" when there is none.
  std::string ini_line(const char *key) {
    const char *l = INI_GetLine(appl_, key);
    return l ? l : "";
  }
  std::filesystem::path dir_;
  FL_FORM *form_ = nullptr;
  FL_OBJECT *tb_ = nullptr;

private:
  const char *appl_;
};

} // namespace zqtest

// Expects the statements to end the program with status 1 after writing a
// diagnostic that matches `pattern`.
#define EXPECT_FATAL(pattern, ...)                                                                 \
  EXPECT_EXIT(                                                                                     \
      {                                                                                            \
        msg_set_handler(zqtest::to_stderr);                                                        \
        __VA_ARGS__;                                                                               \
      },                                                                                           \
      ::testing::ExitedWithCode(1), pattern)
