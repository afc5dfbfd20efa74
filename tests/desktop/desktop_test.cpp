// The viewer on a real X server with a window manager (started by
// run-desktop), driven by real key and mouse events from xdotool against a
// real server: the focus walk and the editing keys of text inputs, the
// tabbox's menu owning Escape, a window that grows, an error box with the
// server's text, and the result's "|" columns standing under the title's in
// a picture of the tabbox (run also with QT_SCALE_FACTOR=1.25).
#include "forms/console.h"
#include "forms/mytabs_draw.h"
#include "tests/app/app_testutil.h"
#include "tests/forms/bars_testutil.h"

#include <QLineEdit>
#include <QMessageBox>
#include <QTimer>

#include <functional>

namespace {

class Desktop : public ::testing::Test {
protected:
  // The viewer, started once per process on the test server's DEMO database.
  static bool started() {
    static const bool ok = [] {
      if (!zqtest::viewer_started()) return false;
      // As the program shows it: the form in front, the console iconified.
      myfl_show_form(zentiq_app().main.form, "Zentiq");
      fl_iconify_console();
      return QTest::qWaitForWindowExposed(zentiq_app().main.form->window, 5000);
    }();
    return ok;
  }
  void SetUp() override {
    ASSERT_TRUE(started()) << "the viewer did not start on the test's TAVRIN server";
    fl_seam_enable(0); // real boxes, answered with real keys
    activate();
  }

  ZqMainForm &m() { return zentiq_app().main; }
  QWidget *window() { return m().form->window; }

  // Runs xdotool with args, then lets the events it caused arrive: until
  // `done` holds (3 s at most), or for wait_ms.
  static void xdo(const std::string &args, int wait_ms = 200,
                  const std::function<bool()> &done = {}) {
    ASSERT_EQ(std::system(("xdotool " + args).c_str()), 0) << args;
    if (done)
      (void)QTest::qWaitFor(done, 3000);
    else
      QTest::qWait(wait_ms);
  }
  // Activates the main window. Right after its start the window manager may
  // still refuse (xdotool then reports that it does not support activating
  // windows), so the request is repeated for up to 3 s.
  void activate() {
    const std::string cmd =
        "xdotool windowactivate --sync " + std::to_string(window()->winId()) + " 2>/dev/null";
    for (int i = 0; i < 30 && std::system(cmd.c_str()) != 0; ++i) QTest::qWait(100);
    ASSERT_TRUE(QTest::qWaitForWindowActive(window(), 3000));
  }
  // The screen position (in the X server's pixels) of point p of widget w.
  static std::string screen_at(QWidget *w, QPointF p) {
    QPointF g = QPointF(w->mapToGlobal(QPoint(0, 0))) + p;
    const double dpr = w->devicePixelRatioF();
    return std::to_string(qRound(g.x() * dpr)) + " " + std::to_string(qRound(g.y() * dpr));
  }
  void click(FL_OBJECT *obj, QPoint p, int button = 1) {
    xdo("mousemove " + screen_at(obj->widget, p) + " click " + std::to_string(button));
  }
  // Runs fn on the first modal box or open menu that shows within 5 s,
  // while the caller's action waits for it.
  static void when_shown(std::function<void(QWidget *)> fn) {
    auto *timer = new QTimer;
    auto left = std::make_shared<int>(100);
    QObject::connect(timer, &QTimer::timeout, [timer, fn, left] {
      QWidget *w = QApplication::activePopupWidget();
      if (!w) w = QApplication::activeModalWidget();
      if (!w && --*left > 0) return;
      timer->stop();
      timer->deleteLater();
      fn(w);
    });
    timer->start(50);
  }
  void select(const char *table, const char *attributes) {
    fl_set_input(m().table, table);
    fl_set_input(m().attributes, attributes);
    fl_set_input(m().where, "");
    click(m().table, QPoint(5, 5));
    xdo("key alt+u", 600);
  }
  // Resizes the main form's window to size (in Qt's pixels) through the
  // window manager.
  void resize_to(QSize size) {
    const double dpr = window()->devicePixelRatioF();
    xdo("windowsize --sync " + std::to_string(window()->winId()) + " " +
            std::to_string(qRound(size.width() * dpr)) + " " +
            std::to_string(qRound(size.height() * dpr)),
        0, [&] { return window()->size() == size; });
    QTest::qWait(100); // the form's objects follow the window's new size
  }
};

TEST_F(Desktop, TabWalksTheFormAndTextInputsKeepTheirKeys) {
  click(m().table, QPoint(5, 5));
  ASSERT_EQ(QApplication::focusWidget(), m().table->widget);
  // Tab goes on in reading order through the result tabbox to Database and
  // round to Tabelle again.
  std::vector<QWidget *> walk;
  for (int i = 0; i < 40 && (walk.empty() || walk.back() != m().table->widget); ++i) {
    QWidget *before = QApplication::focusWidget();
    xdo("key Tab", 0, [&] { return QApplication::focusWidget() != before; });
    walk.push_back(QApplication::focusWidget());
  }
  auto at = [&](FL_OBJECT *obj) {
    return std::find(walk.begin(), walk.end(), obj->widget) - walk.begin();
  };
  EXPECT_LT(at(m().where), at(m().sql));
  EXPECT_LT(at(m().sql), at(m().result));
  EXPECT_LT(at(m().result), at(m().database));
  EXPECT_EQ(walk.back(), m().table->widget) << walk.size() << " steps";
  // Shift+Tab goes back, also when Shift is let go before Tab (as xdotool
  // does).
  xdo("key shift+Tab", 0, [&] { return QApplication::focusWidget() != m().table->widget; });
  EXPECT_EQ(QApplication::focusWidget(), walk[walk.size() - 2]);

  // Ctrl+A selects the input's text and does not mark the query stored.
  fl_set_input(m().table, "KUNDE");
  click(m().table, QPoint(5, 5));
  const int saved = fl_get_button(m().sel_saved);
  auto *edit = qobject_cast<QLineEdit *>(m().table->widget);
  ASSERT_NE(edit, nullptr);
  xdo("key ctrl+a", 0, [&] { return edit->hasSelectedText(); });
  EXPECT_EQ(edit->selectedText(), "KUNDE");
  EXPECT_EQ(fl_get_button(m().sel_saved), saved);
  xdo("key End shift+Home");
  EXPECT_EQ(edit->selectedText(), "KUNDE");
}

TEST_F(Desktop, EscapeClosesTheTabboxMenuWithoutHelp) {
  select("KUNDE", "KUNDE_ID, NAME");
  ASSERT_GT(fl_get_tabbox_maxline(m().result), 2);
  const int line_y = tabbox_list_y(m().result) + 3;
  bool open = false, closed = false;
  when_shown([&](QWidget *menu) {
    open = menu && QApplication::activePopupWidget() == menu;
    xdo("key Escape", 0, [] { return QApplication::activePopupWidget() == nullptr; });
    closed = QApplication::activePopupWidget() == nullptr;
    if (!closed) menu->close(); // the test must go on
  });
  click(m().result, QPoint(40, line_y), 3);
  QTest::qWait(300);
  EXPECT_TRUE(open);
  EXPECT_TRUE(closed);
  for (QWidget *w : QApplication::topLevelWidgets())
    EXPECT_FALSE(w->isVisible() && w->windowTitle() == "Hilfedialog") << "help shown";
}

TEST_F(Desktop, TheMainFormGrowsWithItsWindowAndErrorsSayWhy) {
  const QSize tabbox = m().result->widget->size(), form = window()->size();
  resize_to(form + QSize(200, 150));
  EXPECT_NEAR(m().result->widget->width(), tabbox.width() + 200, 2);
  EXPECT_GT(m().result->widget->height(), tabbox.height() + 40);
  resize_to(form);
  EXPECT_EQ(m().result->widget->size(), tabbox);

  // A missing table: an error box with the server's text and number.
  QString title, text;
  when_shown([&](QWidget *w) {
    if (auto *box = qobject_cast<QMessageBox *>(w)) {
      title = box->windowTitle();
      text = box->text() + "\n" + box->informativeText();
    }
    xdo("key Return");
  });
  select("NOSUCHTABLE", "");
  EXPECT_EQ(title, "Fehler");
  EXPECT_TRUE(text.contains("(TAVRIN 301) Tabelle NOSUCHTABLE existiert nicht"))
      << text.toStdString();
  EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
}

// A picture of the result at the form's size and larger: the "|" of the
// first line stand exactly under the title's, and a press where a far one is
// seen starts the resize of its column.
TEST_F(Desktop, BarsOfTheResultStandUnderTheTitles) {
  FL_OBJECT *tb = m().result;
  select("KUNDE", "KUNDE_ID, ANREDE, VORNAME, NAME, PLZ, ORT, LAND");
  ASSERT_GT(fl_get_tabbox_maxline(tb), 1);
  const QSize form = window()->size();
  for (int grow : {0, 300}) {
    resize_to(form + QSize(grow, 0));
    const double dpr = window()->devicePixelRatioF();
    const QImage img = tb->widget->grab().toImage();
    int cw, ch;
    tabbox_char_size(tb, &cw, &ch);
    auto bars = [&](int top) {
      return bars_test::bar_columns(img, qRound(top * dpr), qRound(ch * dpr),
                                    qRound(tabbox_text_x(tb) * dpr),
                                    qRound((tb->widget->width() - FL_TABBOX_SCROLL - 4) * dpr));
    };
    const std::vector<double> title = bars(FL_TABBOX_BW), line = bars(tabbox_list_y(tb));
    ASSERT_EQ(title.size(), 6u) << "window wider by " << grow;
    ASSERT_EQ(line.size(), title.size()) << "window wider by " << grow;
    for (size_t i = 0; i < title.size(); ++i) EXPECT_NEAR(line[i], title[i], 0.6) << "bar " << i;
    ASSERT_GT(title.back() / dpr, tabbox_text_x(tb) + 25 * cw);

    // The last bar, pressed where it is seen and dragged one cell left.
    const int before = zqtest::tabbox_props(tb).colmax[6];
    const QPointF seen(title.back() / dpr, ch / 2.0 + 2);
    xdo("mousemove " + screen_at(tb->widget, seen) + " mousedown 1");
    EXPECT_EQ(tb->widget->cursor().shape(), Qt::SizeAllCursor);
    xdo("mousemove " + screen_at(tb->widget, seen - QPointF(cw, 0)) + " mouseup 1");
    EXPECT_NE(zqtest::tabbox_props(tb).colmax[6], before) << "window wider by " << grow;
    EXPECT_EQ(zqtest::tabbox_props(tb).colmax[5], -1);
  }
  resize_to(form);
}

} // namespace
