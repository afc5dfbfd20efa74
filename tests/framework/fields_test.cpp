// Typed input fields: short forms of dates, times and timestamps, strict
// number scans, and the field callback driven by real keys.
#include "framework/fields.h"

#include "base/msg.h"
#include "forms/dialogs.h"
#include "tests/qt_env.h"

#include <QApplication>
#include <QTest>

#include <cstdio>
#include <string>

namespace {

void to_stderr(const char *text) { std::fputs(text, stderr); }

struct Date {
  int d = 0, m = 0, y = 0;
};
bool date(const char *text, Date *out) { return myfl_parse_datum(text, &out->d, &out->m, &out->y); }

TEST(FieldsParse, DateShortFormsFillFromToday) {
  DATE today;
  DATE_Today(&today);
  Date v;
  ASSERT_TRUE(date("5", &v));
  EXPECT_EQ(v.d, 5);
  EXPECT_EQ(v.m, today.month);
  EXPECT_EQ(v.y, today.year);
  ASSERT_TRUE(date("0507", &v));
  EXPECT_EQ(v.d, 5);
  EXPECT_EQ(v.m, 7);
  EXPECT_EQ(v.y, today.year);
  ASSERT_TRUE(date("05072003", &v));
  EXPECT_EQ(v.d, 5);
  EXPECT_EQ(v.m, 7);
  EXPECT_EQ(v.y, 2003);
  ASSERT_TRUE(date("12.7.2003", &v));
  EXPECT_EQ(v.d, 12);
  EXPECT_EQ(v.m, 7);
  ASSERT_TRUE(date("1-12-2000", &v));
  EXPECT_EQ(v.m, 12);
}

TEST(FieldsParse, DateCalendarRulesAndTrailingCharacters) {
  Date v{1, 2, 3};
  EXPECT_FALSE(date("31.2", &v));
  EXPECT_FALSE(date("31.2.2004", &v));
  EXPECT_TRUE(date("29.2.2004", &v));
  EXPECT_FALSE(date("29.2.2003", &v));
  EXPECT_FALSE(date("1.2.03", &v)) << "a two-digit year is not completed";
  EXPECT_FALSE(date("1.2.2003x", &v));
  EXPECT_FALSE(date("", &v));
  EXPECT_FALSE(date("abc", &v));
  EXPECT_FALSE(date("32", &v));
  EXPECT_EQ(v.d, 29) << "a failed parse leaves the outputs";
}

TEST(FieldsParse, TimeIsStrictAboutItsFullForm) {
  int h = -1, m = -1, s = -1;
  ASSERT_TRUE(myfl_parse_zeit("08:15", &h, &m, &s));
  EXPECT_EQ(h * 10000 + m * 100 + s, 81500);
  ASSERT_TRUE(myfl_parse_zeit("8:15", &h, &m, &s));
  EXPECT_EQ(h * 10000 + m * 100 + s, 81500);
  ASSERT_TRUE(myfl_parse_zeit("0815", &h, &m, &s));
  EXPECT_EQ(h * 100 + m, 815);
  ASSERT_TRUE(myfl_parse_zeit("23:59:58", &h, &m, &s));
  EXPECT_EQ(s, 58);
  EXPECT_FALSE(myfl_parse_zeit("8:15:00", &h, &m, &s)) << "seven characters";
  EXPECT_FALSE(myfl_parse_zeit("1:2:3", &h, &m, &s));
  EXPECT_FALSE(myfl_parse_zeit("123456", &h, &m, &s));
  EXPECT_FALSE(myfl_parse_zeit("24:00", &h, &m, &s));
  EXPECT_FALSE(myfl_parse_zeit("12:60", &h, &m, &s));
  EXPECT_FALSE(myfl_parse_zeit("08:15:00 ", &h, &m, &s)) << "longer than eight";
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
  EXPECT_EQ(s, 15);
  EXPECT_EQ(us, 250);
  EXPECT_FALSE(myfl_parse_timestamp("12.7.2003", &y, &mo, &d, &h, &mi, &s, &us))
      << "the dotted date form of a date field is year 12 here";
  EXPECT_FALSE(myfl_parse_timestamp("2003-02-30", &y, &mo, &d, &h, &mi, &s, &us));
  EXPECT_FALSE(myfl_parse_timestamp("2003-07-12-25.00", &y, &mo, &d, &h, &mi, &s, &us));
  EXPECT_FALSE(myfl_parse_timestamp("2003-07-12-10", &y, &mo, &d, &h, &mi, &s, &us));
}

class FieldsForm : public ::testing::Test {
protected:
  void SetUp() override {
    form_ = fl_begin_form(0, 300, 200);
    a_ = fl_add_input(FL_NORMAL_INPUT, 80, 10, 150, 24, "A");
    b_ = fl_add_input(FL_NORMAL_INPUT, 80, 40, 150, 24, "B");
    c_ = fl_add_input(FL_NORMAL_INPUT, 80, 70, 150, 24, "C");
    fl_end_form();
    fl_seam_clear();
  }
  void TearDown() override {
    myfl_free_fields(form_);
    fl_free_form(form_);
  }
  FL_FORM *form_ = nullptr;
  FL_OBJECT *a_ = nullptr, *b_ = nullptr, *c_ = nullptr;
};

TEST_F(FieldsForm, NumbersReadStrictlyWithNullMarkers) {
  fl_set_input(a_, "");
  EXPECT_EQ(myfl_get_input_short(a_), -32768);
  EXPECT_EQ(myfl_get_input_long(a_), -2147483647);
  EXPECT_EQ(myfl_get_input_double(a_), -1e20);
  fl_set_input(a_, "42");
  EXPECT_EQ(myfl_get_input_short(a_), 42);
  EXPECT_EQ(myfl_get_input_long(a_), 42);
  fl_set_input(a_, "42x");
  EXPECT_EQ(myfl_get_input_long(a_), -2147483647);
  fl_set_input(a_, "70000");
  EXPECT_EQ(myfl_get_input_short(a_), -32768) << "out of range";
  fl_set_input(a_, "-2.5");
  EXPECT_DOUBLE_EQ(myfl_get_input_double(a_), -2.5);
  myfl_set_input_double(a_, 3.0);
  EXPECT_STREQ(fl_get_input(a_), "3");
  myfl_set_input_long(a_, -2147483647);
  EXPECT_STREQ(fl_get_input(a_), "");
  myfl_set_input_year(a_, 803);
  EXPECT_STREQ(fl_get_input(a_), "0803");
  myfl_set_input_2digits(a_, 7);
  EXPECT_STREQ(fl_get_input(a_), "07");
  DATE d = {2003, 7, 5};
  myfl_set_input_datum(a_, &d);
  EXPECT_STREQ(fl_get_input(a_), "05.07.2003");
  DATE back{};
  ASSERT_EQ(myfl_get_input_datum(a_, &back), 1);
  EXPECT_EQ(DATE_Compare(&d, &back), 0);
  myfl_set_input_datum(a_, &DATE_MIN);
  EXPECT_STREQ(fl_get_input(a_), "") << "the null date shows empty";
}

int g_app_calls = 0;
void app_callback(FL_OBJECT *, long) { ++g_app_calls; }

TEST_F(FieldsForm, FieldCallbackRewritesOrRejectsTypedText) {
  g_app_calls = 0;
  fl_set_object_callback(a_, app_callback, 0);
  myfl_set_datum_callback(a_);
  myfl_set_zeit_callback(b_);
  EXPECT_EQ(myfl_field_kind(a_), MYFL_FIELD_DATUM);
  EXPECT_EQ(myfl_field_kind(c_), 0);
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
  EXPECT_EQ(fl_seam_shown()[0].text.rfind("Ungültige Uhrzeit!", 0), 0u);
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
  fl_hide_form(form_);
}

TEST_F(FieldsForm, SecondRegistrationIsFatal) {
  myfl_set_datum_callback(a_);
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_set_zeit_callback(a_);
      },
      ::testing::ExitedWithCode(1), "\\(myfl_set_zeit_callback\\) Callback already defined\n");
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_set_timestamp_callback(b_);
        myfl_set_timestamp_callback(b_);
      },
      ::testing::ExitedWithCode(1), "\\(myfl_set_timestamp_callback\\) Callback already defined");
}

} // namespace
