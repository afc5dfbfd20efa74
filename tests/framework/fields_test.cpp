// Typed input fields: short forms of dates, times and timestamps, strict
// number scans, and the field callback driven by real keys.
#include "tests/framework/framework_testutil.h"

namespace {

using namespace zqtest;

TEST(FieldsParse, DateShortFormsAndCalendarRules) {
  DATE today;
  DATE_Today(&today);
  // 0 in the expectation: the part of today's date.
  struct Case {
    const char *text;
    int d, m, y;
  } good[] = {{"5", 5, 0, 0},
              {"0507", 5, 7, 0},
              {"05072003", 5, 7, 2003},
              {"12.7.2003", 12, 7, 2003},
              {"1-12-2000", 1, 12, 2000},
              {"29.2.2004", 29, 2, 2004}};
  for (const Case &c : good) {
    int d = 0, m = 0, y = 0;
    ASSERT_TRUE(myfl_parse_datum(c.text, &d, &m, &y)) << c.text;
    EXPECT_EQ(d, c.d) << c.text;
    EXPECT_EQ(m, c.m ? c.m : today.month) << c.text;
    EXPECT_EQ(y, c.y ? c.y : today.year) << c.text;
  }
  // A two-digit year is not completed; a failed parse leaves the outputs.
  for (const char *bad :
       {"31.2", "31.2.2004", "29.2.2003", "1.2.03", "1.2.2003x", "", "abc", "32"}) {
    int d = 1, m = 2, y = 3;
    EXPECT_FALSE(myfl_parse_datum(bad, &d, &m, &y)) << bad;
    EXPECT_EQ(d * 100 + m * 10 + y, 123) << bad;
  }
}

TEST(FieldsParse, TimeIsStrictAboutItsFullForm) {
  for (auto [text, hms] :
       {std::pair{"08:15", 81500}, {"8:15", 81500}, {"0815", 81500}, {"23:59:58", 235958}}) {
    int h = -1, m = -1, s = -1;
    ASSERT_TRUE(myfl_parse_zeit(text, &h, &m, &s)) << text;
    EXPECT_EQ(h * 10000 + m * 100 + s, hms) << text;
  }
  // Seven characters, short parts, six digits, out of range, more than eight.
  for (const char *bad : {"8:15:00", "1:2:3", "123456", "24:00", "12:60", "08:15:00 "}) {
    int h, m, s;
    EXPECT_FALSE(myfl_parse_zeit(bad, &h, &m, &s)) << bad;
  }
}

TEST(FieldsParse, TimestampIsReadYearFirst) {
  int y, mo, d, h, mi, s, us;
  ASSERT_TRUE(myfl_parse_timestamp("2003-07-12", &y, &mo, &d, &h, &mi, &s, &us));
  EXPECT_EQ(y * 10000 + mo * 100 + d, 20030712);
  EXPECT_EQ(h + mi + s + us, 0);
  ASSERT_TRUE(myfl_parse_timestamp("2003-07-12-10.30", &y, &mo, &d, &h, &mi, &s, &us));
  EXPECT_EQ(h * 100 + mi, 1030);
  EXPECT_EQ(s + us, 0);
  ASSERT_TRUE(myfl_parse_timestamp("2003.07.12.10.30.15.250", &y, &mo, &d, &h, &mi, &s, &us));
  EXPECT_EQ(s * 1000 + us, 15250);
  // The dotted form of a date field would be year 12 here.
  for (const char *bad : {"12.7.2003", "2003-02-30", "2003-07-12-25.00", "2003-07-12-10"})
    EXPECT_FALSE(myfl_parse_timestamp(bad, &y, &mo, &d, &h, &mi, &s, &us)) << bad;
}

class FieldsForm : public FormTest {
protected:
  void SetUp() override {
    FormTest::SetUp();
    form_ = fl_begin_form(0, 300, 200);
    a_ = fl_add_input(FL_NORMAL_INPUT, 80, 10, 150, 24, "A");
    b_ = fl_add_input(FL_NORMAL_INPUT, 80, 40, 150, 24, "B");
    fl_end_form();
  }
  FL_OBJECT *a_ = nullptr, *b_ = nullptr;
};

TEST_F(FieldsForm, NumbersReadStrictlyWithNullMarkers) {
  fl_set_input(a_, "");
  EXPECT_EQ(myfl_get_input_short(a_), -32768);
  EXPECT_EQ(myfl_get_input_long(a_), -2147483647);
  EXPECT_EQ(myfl_get_input_double(a_), -1e20);
  fl_set_input(a_, "42x");
  EXPECT_EQ(myfl_get_input_long(a_), -2147483647);
  fl_set_input(a_, "70000");
  EXPECT_EQ(myfl_get_input_long(a_), 70000);
  EXPECT_EQ(myfl_get_input_short(a_), -32768) << "out of range";
  fl_set_input(a_, "-2.5");
  EXPECT_DOUBLE_EQ(myfl_get_input_double(a_), -2.5);
  myfl_set_input_double(a_, 3.0);
  EXPECT_STREQ(fl_get_input(a_), "3");
  myfl_set_input_long(a_, -2147483647);
  EXPECT_STREQ(fl_get_input(a_), "") << "the null value shows empty";
  myfl_set_input_year(a_, 803);
  EXPECT_STREQ(fl_get_input(a_), "0803");
  DATE d = {2003, 7, 5};
  myfl_set_input_datum(a_, &d);
  EXPECT_STREQ(fl_get_input(a_), "05.07.2003");
  DATE back{};
  ASSERT_EQ(myfl_get_input_datum(a_, &back), 1);
  EXPECT_EQ(DATE_Compare(&d, &back), 0);
  myfl_set_input_datum(a_, &DATE_MIN);
  EXPECT_STREQ(fl_get_input(a_), "") << "the null date shows empty";
  DATI ts{};
  EXPECT_EQ(myfl_get_input_timestamp(a_, &ts), 1);
  EXPECT_EQ(ts.year, 1800) << "empty: the null timestamp";
  fl_set_input(a_, "12.7.2003");
  EXPECT_EQ(myfl_get_input_timestamp(a_, &ts), 0);
}

int g_app_calls = 0;
void app_callback(FL_OBJECT *, long) { ++g_app_calls; }

TEST_F(FieldsForm, FieldCallbackRewritesOrRejectsTypedText) {
  g_app_calls = 0;
  fl_set_object_callback(a_, app_callback, 0);
  myfl_set_datum_callback(a_);
  myfl_set_zeit_callback(b_);
  show_and_activate(form_);
  fl_set_focus_object(form_, a_);
  QTest::keyClicks(a_->widget, "05072003");
  QTest::keyClick(a_->widget, Qt::Key_Return);
  EXPECT_STREQ(fl_get_input(a_), "05.07.2003");
  EXPECT_EQ(g_app_calls, 1);
  EXPECT_EQ(fl_get_focus_object(form_), b_) << "Return moves on to the next field";
  EXPECT_TRUE(fl_seam_shown().empty());

  QTest::keyClicks(b_->widget, "8:15:00");
  QTest::keyClick(b_->widget, Qt::Key_Return);
  ASSERT_EQ(fl_seam_shown().size(), 1u);
  EXPECT_THAT(fl_seam_shown()[0].text, testing::StartsWith("Ungültige Uhrzeit!"));
  EXPECT_STREQ(fl_get_input(b_), "8:15:00") << "the text stays for correction";
  EXPECT_EQ(fl_get_focus_object(form_), b_);

  fl_set_focus_object(form_, a_);
  fl_set_input(a_, "");
  QTest::keyClicks(a_->widget, "31.2");
  QTest::keyClick(a_->widget, Qt::Key_Return);
  EXPECT_EQ(g_app_calls, 1) << "an invalid entry does not reach the application";
  fl_set_input(a_, "x");
  QTest::keyClick(a_->widget, Qt::Key_Backspace);
  QTest::keyClick(a_->widget, Qt::Key_Return);
  EXPECT_EQ(g_app_calls, 2) << "an empty field is the null value";
}

} // namespace
