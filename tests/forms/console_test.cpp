// The console window, the command window and child processes.
#include "forms/console.h"
#include "forms/process.h"
#include "tests/forms/forms_testutil.h"

#include <QFile>
#include <QImage>
#include <QPlainTextEdit>
#include <QProcess>

namespace {

TEST(ConsoleTest, KeepsTheLast200LinesOnePerPrint) {
  fl_console_clear();
  ASSERT_NE(fl_console_window(), nullptr);
  EXPECT_EQ(fl_console_window()->windowTitle(), QStringLiteral("Console"));
  fl_console_window()->showMinimized();
  for (int i = 1; i <= 250; ++i) {
    std::string line = "Zeile " + std::to_string(i) + "\n"; // the line feed folds
    EXPECT_EQ(fl_console_print(line.c_str()), 1);
  }
  EXPECT_EQ(fl_console_line_count(), 200);
  const std::string &text = fl_console_text();
  EXPECT_THAT(text, testing::StartsWith("Zeile 51 \r\r\nZeile 52 "));
  EXPECT_EQ(text.substr(text.size() - 13), "\r\r\nZeile 250 ");
  // Printing shows the console restored again.
  EXPECT_FALSE(fl_console_window()->isMinimized());

  fl_console_print("(x) zwei\nZeilen Größe");
  EXPECT_EQ(fl_console_line_count(), 200);
  EXPECT_EQ(text.substr(text.size() - 24), "\r\r\n(x) zwei Zeilen Größe");
  auto *edit = fl_console_window()->findChild<QPlainTextEdit *>();
  ASSERT_NE(edit, nullptr);
  EXPECT_EQ(edit->document()->blockCount(), 200);
  EXPECT_TRUE(edit->toPlainText().endsWith(QStringLiteral("(x) zwei Zeilen Größe")));
}

TEST(ProcessTest, MissingProgramIsReportedAndTheNextStartWorks) {
  ASSERT_NE(fl_command_window(), nullptr);
  EXPECT_EQ(fl_start_program("zentiq-no-such-program -x", 0), 0);
  EXPECT_EQ(fl_program_running(), 0);
  EXPECT_THAT(fl_command_text(), testing::HasSubstr("Unable to start zentiq-no-such-program -x\n"));

  ASSERT_EQ(fl_start_program("/bin/sh -c \"echo aus-dem-kind; echo fehler >&2; sleep 0.2\"", 1), 1);
  EXPECT_EQ(fl_program_running(), 1);
  bool done = QTest::qWaitFor(
      [] {
        std::string t = fl_command_text();
        return !fl_program_running() && t.find("aus-dem-kind\n") != std::string::npos &&
               t.find("fehler\n") != std::string::npos;
      },
      10000);
  EXPECT_TRUE(done) << fl_command_text();
  EXPECT_TRUE(fl_command_window()->isVisible());

  // One child after another through the same pipes.
  ASSERT_EQ(fl_start_program("echo zweites", 0), 1);
  EXPECT_TRUE(QTest::qWaitFor(
      [] { return fl_command_text().find("zweites\n") != std::string::npos; }, 10000));
}

TEST(ProcessTest, RunProgramWaitsForTheEnd) {
  std::string marker = ::testing::TempDir() + "zentiq_run_marker";
  std::remove(marker.c_str());
  std::string cmd = "/bin/sh -c \"sleep 0.1; touch " + marker + "\"";
  EXPECT_EQ(fl_run_program(cmd.c_str()), 1);
  EXPECT_TRUE(QFile::exists(QString::fromLocal8Bit(marker.c_str())));
  std::remove(marker.c_str());
  EXPECT_EQ(fl_run_program("zentiq-no-such-program"), 0);
  EXPECT_EQ(fl_run_program(""), 0);
  using V = std::vector<std::string>;
  EXPECT_EQ(fl_split_program_line("a  \"b c\" d"), (V{"a", "b c", "d"}));
}

TEST(DemoTest, ScreenshotOfTheDemoForm) {
  // The demo is built beside the test binary's folder (build/tests/forms).
  const char *build = std::getenv("ZENTIQ_BUILD_DIR");
  QString program = build ? QString::fromLocal8Bit(build) + QStringLiteral("/forms/forms_demo")
                          : QStringLiteral(QT_TESTCASE_BUILDDIR "/../../forms/forms_demo");
  ASSERT_TRUE(QFile::exists(program)) << program.toStdString();
  QString png = QString::fromLocal8Bit(::testing::TempDir().c_str()) +
                QStringLiteral("demo-%1.png").arg(QCoreApplication::applicationPid());
  QFile::remove(png);
  struct Remove {
    QString path;
    ~Remove() { QFile::remove(path); }
  } gone_at_end{png};
  QProcess demo;
  QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
  env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
  demo.setProcessEnvironment(env);
  demo.start(program, {QStringLiteral("--screenshot"), png});
  ASSERT_TRUE(demo.waitForFinished(60000));
  EXPECT_EQ(demo.exitStatus(), QProcess::NormalExit);
  EXPECT_EQ(demo.exitCode(), 0) << demo.readAllStandardError().toStdString();
  QImage image(png);
  ASSERT_FALSE(image.isNull());
  EXPECT_EQ(image.size(), QSize(480, 330));
}

} // namespace
