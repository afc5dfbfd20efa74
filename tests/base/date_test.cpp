// Dates, times and timestamps: text forms, validity, arithmetic, day counts
// and the timestamp difference.
#include "base/date.h"

#include <ctime>

#include "base_testutil.h"

namespace {

using namespace base_test;

std::string iso(const DATE &d) {
  char buf[DATE_BUFSIZE];
  DATE_ToIsoString(&d, buf);
  return buf;
}

DATE date(const char *text, int dattyp = DA_DEFAULT) {
  DATE d{0, 0, 0};
  EXPECT_EQ(DATE_FromString(&d, text, dattyp), 1) << text;
  return d;
}

TEST(DateText, FormatsForEveryDattypAndTheTwoParsedForms) {
  Capture c;
  DATE d{2003, 7, 5};
  char buf[DATE_BUFSIZE];
  const char *want[] = {"2003.07.05", "030705", "20030705", "05073", "05.07.2003", "2003"};
  for (int t = 0; t <= 5; ++t) {
    DATE_ToStr(&d, buf, t == 0 ? DA_DEFAULT : t);
    EXPECT_STREQ(buf, want[t]);
  }
  EXPECT_EQ(c.take(), "");
  EXPECT_EQ(DATE_ToStr(&d, buf, 7), 1);
  EXPECT_STREQ(buf, "2003.07.05");
  EXPECT_EQ(c.take(), "(DATE_ToStr) Invalid dattyp (7) -> using default.\n");
  DATE wild{-32768, 255, 255}; // any record fits the buffer size
  DATE_ToStr(&wild, buf, DA_DEFAULT);
  EXPECT_STREQ(buf, "-32768.255.255");

  EXPECT_EQ(iso(date("2003.07.12")), "2003-07-12");
  EXPECT_EQ(iso(date("1900-02-29")), "1900-02-29"); // no century rule
  EXPECT_EQ(iso(date("20030712", DA_YYYYMMDD)), "2003-07-12");
  c.take();

  DATE keep{2000, 1, 1};
  EXPECT_EQ(DATE_FromString(&keep, "2003-07-12x", DA_DEFAULT), 0);
  EXPECT_EQ(c.take(), "(DATE_FromString) Warning: Invalid DATE-string\n");
  for (const char *impossible : {"2003-02-29", "1799-12-31", "2801-01-01"})
    EXPECT_EQ(DATE_FromString(&keep, impossible, DA_DEFAULT), 0);
  EXPECT_EQ(c.take(), ""); // impossible dates fail silently
  EXPECT_EQ(iso(keep), "2000-01-01");
  EXPECT_EQ(DATE_FromString(&keep, "29.02.2003", DA_DDMMYYYY), 0);
  EXPECT_EQ(c.take(), "(DATE_FromString) Format DA_DDMMYYYY not yet implemented!\n"
                      "(DATE_FromString) Warning: Invalid DATE-string\n");
}

TEST(DateRules, ValidityAndLeapYears) {
  DATE ok[] = {{1800, 1, 1}, {2800, 12, 31}, {2004, 2, 29}, {2003, 4, 30}};
  for (const DATE &d : ok) EXPECT_EQ(DATE_IsValid(&d), 1) << iso(d);
  DATE bad[] = {{1799, 12, 31}, {2801, 1, 1}, {2003, 2, 29}, {2003, 4, 31},
                {2003, 13, 1},  {2003, 0, 1}, {2003, 1, 0}};
  for (const DATE &d : bad) EXPECT_EQ(DATE_IsValid(&d), 0) << iso(d);
  EXPECT_EQ(DATE_IsNull(&ok[0]), 1);
  EXPECT_EQ(DATE_IsNull(&ok[1]), 0);
  DATE today;
  std::time_t now = std::time(nullptr);
  ASSERT_EQ(DATE_Today(&today), 1);
  EXPECT_EQ(today.year, std::localtime(&now)->tm_year + 1900);
}

TEST(DateArithmetic, DaysMonthsAndUltimo) {
  enum Op { Days, Months, Ultimo };
  const struct {
    const char *from;
    Op op;
    int n;
    const char *to;
  } cases[] = {
      // From 30 March a month on is 30 April (not the ultimo: the day stays);
      // 30 April is the ultimo of its month.
      {"2003-12-31", Days, 1, "2004-01-01"},     {"2004-03-01", Days, -1, "2004-02-29"},
      {"2003-07-12", Days, 1000, "2006-04-07"},  {"2003-01-31", Months, 1, "2003-02-28"},
      {"2003-11-15", Months, 3, "2004-02-15"},   {"2004-02-15", Months, -14, "2002-12-15"},
      {"2004-01-31", Ultimo, 1, "2004-02-29"},   {"2003-02-28", Ultimo, 1, "2003-03-31"},
      {"2003-03-30", Ultimo, 1, "2003-04-30"},   {"2003-04-30", Ultimo, -2, "2003-02-28"}};
  for (const auto &k : cases) {
    DATE d = date(k.from);
    int rc = k.op == Days     ? DATE_AddDays(&d, k.n)
             : k.op == Months ? DATE_AddMonths(&d, k.n)
                              : DATE_AddMonthsUltimo(&d, k.n);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(iso(d), k.to) << k.from << " op " << k.op << " " << k.n;
  }
  DATE d = date("2003-07-12"), e = date("2004-12-31"), f = date("2003-02-10");
  EXPECT_EQ(DATE_DayOfYear(&d), 193);
  EXPECT_EQ(DATE_DayOfYear(&e), 366);
  EXPECT_EQ(DATE_DaysInMonth(&f), 28);
  d = date("2004-02-10");
  EXPECT_EQ(DATE_GetUltimo(&d, "MONA"), 1);
  EXPECT_EQ(iso(d), "2004-02-29");
  Capture c;
  EXPECT_EQ(DATE_GetUltimo(&d, "JAHR"), 0);
  EXPECT_EQ(iso(d), "2004-02-29");
  EXPECT_EQ(c.take(), "(DATE_GetUltimo) Not yet implemented for mode 'JAHR'!\n");

  const struct {
    const char *a, *b;
    int leap_days;
  } spans[] = {// both ends are excluded
               {"2003-01-01", "2009-01-01", 2}, {"2009-01-01", "2003-01-01", 0},
               {"2004-02-29", "2008-02-29", 0}, {"2004-01-01", "2004-03-01", 1},
               {"2004-03-01", "2008-03-01", 1}};
  for (const auto &k : spans) {
    DATE a = date(k.a), b = date(k.b);
    EXPECT_EQ(DATE_LeapDays(&a, &b), k.leap_days) << k.a << " .. " << k.b;
  }
}

TEST(DateDiff, ThirtyThreeSixtyRulesAndCalendarDays) {
  Capture c;
  DATE a = date("2003-01-31"), b = date("2003-03-01");
  EXPECT_EQ(DATE_Diff2(&a, &b, "30  "), 31);
  a = date("2003-01-28"), b = date("2003-02-10");
  EXPECT_EQ(DATE_Diff2(&a, &b, "30  "), 10); // the 28th becomes 30 next to February
  EXPECT_EQ(DATE_Diff2(&a, &b, "30"), 12);   // the adjustment needs the exact code
  a = date("2002-11-15"), b = date("2004-03-20");
  EXPECT_EQ(DATE_Diff2(&a, &b, "XXXX"), 15 + 30 + 360 + 60 + 20);
  EXPECT_EQ(c.take(), "");
  EXPECT_EQ(DATE_Diff2(&a, &b, "30E "), DATE_Diff2(&a, &b, "30  "));
  EXPECT_EQ(c.take(), "(DATE_Diff2) Mode '30E ' not yet implemented ('30' is used)!\n");

  // Calendar days agree with AddDays in both directions.
  const char *pairs[][2] = {{"2003-07-12", "2003-07-12"}, {"2003-12-31", "2006-03-01"},
                            {"2004-02-29", "2005-02-28"}, {"2001-05-17", "2012-11-02"}};
  for (auto &p : pairs) {
    DATE x = date(p[0]), y = date(p[1]);
    int n = DATE_Diff2(&x, &y, "KAL ");
    EXPECT_EQ(DATE_Diff2(&y, &x, "KAL "), -n);
    DATE_AddDays(&x, n);
    EXPECT_EQ(iso(x), p[1]) << p[0] << " + " << n;
  }
}

TEST(TimeAndDati, ParsingFormattingOrderAndMessages) {
  Capture c;
  TIME t{1, 1, 1};
  EXPECT_EQ(TIME_FromString(&t, "12:34:56"), 1);
  EXPECT_EQ(t.hour, 12);
  EXPECT_EQ(t.second, 56);
  for (const char *bad : {"1:2:3", "24:00:00", "ab:cd:ef"}) EXPECT_EQ(TIME_FromString(&t, bad), 0);
  EXPECT_EQ(c.take(), "(TIME_FromString) Invalid time (1:2:3)\n"
                      "(TIME_FromString) Invalid timestamp (24:00:00)\n"
                      "(TIME_FromString) Invalid timestamp (ab:cd:ef)\n");
  EXPECT_EQ(t.minute, 34); // failures leave the time
  EXPECT_EQ(TIME_IsValidString("23:60:00"), 0);
  TIME a{10, 0, 0}, b{9, 59, 59};
  EXPECT_EQ(TIME_Compare(&a, &b), 1);
  EXPECT_EQ(c.take(), "");

  DATI d{};
  EXPECT_EQ(DATI_FromString(&d, "2003-07-12-10.20.30.000450"), 1);
  char buf[DATI_BUFSIZE];
  DATI_ToString(&d, buf, DATI_DEFAULT);
  EXPECT_STREQ(buf, "2003-07-12-10.20.30.000450");
  EXPECT_EQ(c.take(), "");
  DATI_ToString(&d, buf, 3);
  EXPECT_STREQ(buf, "2003-07-12-10.20.30.000450");
  EXPECT_EQ(c.take(), "(DATI_ToString) Invalid datityp (3) -> using default.\n");

  // 25 and 27 characters, and a day that does not exist.
  for (const char *bad : {"2003-07-12-10.20.30.00045", "2003-07-12-10.20.30.0004500",
                          "2003-02-29-10.20.30.000450"})
    EXPECT_EQ(DATI_FromString(&d, bad), 0);
  EXPECT_EQ(c.take(), "(DATI_FromString) Invalid timestamp (2003-07-12-10.20.30.00045)\n"
                      "(DATI_FromString) Invalid timestamp (2003-07-12-10.20.30.0004500)\n"
                      "(DATI_FromString) Invalid timestamp (2003-02-29-10.20.30.000450)\n");
  EXPECT_EQ(d.usec, 450);
  EXPECT_EQ(DATI_IsValidString("2003-07-12-24.00.00.000000"), 0);
  EXPECT_EQ(DATI_IsValidString("1999-12-31-23.59.59.999999"), 1);
  EXPECT_EQ(c.take(), "");

  DATI e = d;
  e.usec = 451;
  EXPECT_EQ(DATI_Compare(&d, &e), -1);
  e.usec = 1000000;
  EXPECT_EQ(DATI_Compare(&d, &e), 0);
  EXPECT_EQ(c.take(), "(DATI_Compare) Invalid timestamp\n");
}

double diff(const char *a, const char *b, int *rc = nullptr) {
  DATI x{}, y{};
  EXPECT_EQ(DATI_FromString(&x, a), 1);
  EXPECT_EQ(DATI_FromString(&y, b), 1);
  double s1 = -1, s2 = -1;
  int r = DATI_Diff(&x, &y, &s1);
  EXPECT_EQ(DATI_Diff(&y, &x, &s2), r);
  EXPECT_EQ(s1, s2); // the order of the operands does not matter
  if (rc) *rc = r;
  return s1;
}

TEST(DatiDiff, TimeOfDayOnlyWithWrappingProducts) {
  Capture c;
  int rc = -1;
  EXPECT_DOUBLE_EQ(diff("2003-07-12-10.00.00.500000", "2003-07-13-10.00.01.250000", &rc), 0.75);
  EXPECT_EQ(rc, 1);
  EXPECT_EQ(c.take(), "");
  EXPECT_DOUBLE_EQ(diff("2003-07-31-23.59.59.000000", "2003-08-01-00.00.01.000000", &rc), 2.0);
  EXPECT_EQ(rc, 0);
  std::string warning =
      "(DATI_Diff) Warning: Inaccurate time-duration, because duration is too long!\n";
  EXPECT_EQ(c.take(), warning + warning); // once per order of the operands
  EXPECT_DOUBLE_EQ(diff("2003-07-12-10.00.00.000000", "2003-07-12-10.35.00.000000"), 2100.0);
  // From 36 minutes on the 32-bit minute product wraps around.
  EXPECT_DOUBLE_EQ(diff("2003-07-12-10.00.00.000000", "2003-07-12-10.36.00.000000"),
                   (2160000000.0 - 4294967296.0) / 1e6);
}

} // namespace
