// Value strings: texts of typed values, null markers, the reducing helpers
// and fixed-length copies.
#include "base/valstr.h"

#include "base_testutil.h"

using namespace base_test;

// Every test brackets its strings, as callers do.
class ValueStrings : public ::testing::Test {
protected:
  void SetUp() override { Hold_ValueStrings(); }
  void TearDown() override {
    Set_ValueDecimals(-1);
    Release_ValueStrings();
  }
  // Pairs of a text made and the text wanted.
  static void expect(std::initializer_list<std::pair<const char *, const char *>> made_wanted) {
    int i = 0;
    for (auto [made, want] : made_wanted) EXPECT_STREQ(made, want) << "pair " << i++;
  }
};

TEST_F(ValueStrings, QuotedLogicalCharAndBinaryValues) {
  unsigned char bin[4] = {3, 0, 'a', 'b'}, empty[4] = {0, 0, 'a', 'b'};
  expect({{Make_ValueString("O'Neil", 10), "O\\'Neil"}, {Make_ValueString("a\"b'", 4), "a\\\"b\\'"},
          {Make_TempString("x'y"), "x'y"}, {Make_LogicalString('0'), "Nein"},
          {Make_LogicalString(1), "Ja"}, {Make_CharString('Q'), "Q"}, {Make_CharString('\0'), ""},
          {Make_BinaryString(bin), "<binary value>"}, {Make_BinaryString(empty), ""}});
}

TEST_F(ValueStrings, CalendarValuesDurationsAndTheirNulls) {
  TIME t{9, 5, 0};
  DATE d{2003, 7, 5};
  DATI x{2003, 7, 5, 9, 5, 0, 42};
  expect({{Make_ZeitString(&t), "09:05:00"}, {Make_DateString(&d), "2003-07-05"},
          {Make_DatumString(&d), "2003.07.05"},
          {Make_TimestampString(&x), "2003-07-05-09.05.00.000042"},
          {Make_GermanDateString(&d), "5.7.2003"},
          {Make_GermanDatiString(&x), "5.7.2003 09:05:00 (000042)"}});
  // SQL forms always show the value; display forms hide the null markers.
  expect({{Make_TimeString(&NULL_TIME), "00:00:00"}, {Make_ZeitString(&NULL_TIME), ""},
          {Make_DateString(&NULL_DATE), "1800-01-01"}, {Make_DatumString(&NULL_DATE), ""},
          {Make_DatiString(&NULL_DATI), "1800-01-01-00.00.00.000000"},
          {Make_TimestampString(&NULL_DATI), ""}, {Make_GermanDateString(&NULL_DATE), ""},
          {Make_GermanDatiString(&NULL_DATI), ""}});

  DURA part{0, 0, 2, 3, 0, 5, 250}, full{1, 2, 3, 4, 5, 6, 7}, zero{0, 0, 0, 0, 0, 0, 0};
  expect({{Make_DurationString(&part), "2 Tage 3 Stunden 5,000250 Sekunden"},
          {Make_DurationString(&full),
           "1 Jahre 2 Monate 3 Tage 4 Stunden 5 Minuten 6,000007 Sekunden"},
          {Make_DurationString(&zero), "0,000000 Sekunden"}, {Make_DurationString(&NULL_DATI), ""}});
}

TEST_F(ValueStrings, NumbersAndDecimalPlaces) {
  // The smallest LONG is not the null marker; a widened float null is not
  // the double's.
  expect({{Make_ShortString(NULL_SHORT), ""}, {Make_LongString(-2147483647 - 1), "-2147483648"},
          {Make_LongString(NULL_LONG), ""}, {Make_DoubleString(2.5), "2.5"},
          {Make_DoubleString(3.0), "3"}, {Make_DoubleString(NULL_DOUBLE), ""},
          {Make_BetragString(3.0), "3.00"}, {Make_BetragString(1.999), "2.00"},
          {Make_BetragString(-1e20), ""}, {Make_Double0String(3.7), "4"}});
  EXPECT_EQ(DOUBLE_IsNull(static_cast<double>(NULL_FLOAT)), 0);

  EXPECT_EQ(Get_ValueDecimals(), -1);
  Set_ValueDecimals(3); // amounts: cut, not rounded; doubles: below 6 ignored
  expect({{Make_BetragString(1.23456), "1.234"}, {Make_DoubleString(1.1234567), "1.123457"}});
  Set_ValueDecimals(8);
  EXPECT_STREQ(Make_DoubleString(1.123456789), "1.12345678");
  Set_ValueDecimals(1);
  EXPECT_STREQ(Make_BetragString(1.23456), "1.23");
}

// Without a separator, Reduce_NumString leaves the zeros.
TEST_F(ValueStrings, ReducingAndHtmlTexts) {
  const struct {
    char *(*fn)(const char *);
    const char *in, *want;
  } cases[] = {{Reduce_String, "ab c  ", "ab c"},      {Reduce_NumString, "2.500 ", "2.5"},
               {Reduce_NumString, "3,0", "3"},         {Reduce_NumString, "100", "100"},
               {Reduce_String0, "0012", "12"},         {Reduce_String0, "00 ", "0"},
               {Reduce_NumString0, "0012.50", "12.5"}, {Reduce_String0, "   ", ""},
               {Reduce_String0Dash, "   ", "-"},       {Reduce_String0Dash, "007 ", "7"},
               {Reduce_NumString0Dash, ".000", "-"},   {Make_HtmlString, "   ", "-"}};
  for (const auto &k : cases) EXPECT_STREQ(k.fn(k.in), k.want) << k.in;
  EXPECT_STREQ(Make_HtmlString("first\n   second  "),
               "first<br><spacer type=horizontal size=30>second");
  EXPECT_STREQ(Make_HtmlString("a\nb\n\n c"), "a<br>b<br><br><spacer type=horizontal size=10>c");
}

TEST(FixedCopy, TrailingBlanksAndTooLongTexts) {
  Capture c;
  char field[6] = "-----";
  EXPECT_EQ(my_strncpy(field, "abc    ", 5), 1);
  EXPECT_STREQ(field, "abc");
  EXPECT_EQ(c.take(), "");
  EXPECT_EQ(my_strncpy(field, "abcdefgh  ", 5), 0);
  EXPECT_STREQ(field, "abcde");
  EXPECT_EQ(c.take(), "(my_strncpy): String too long (strlen = 8; size = 5)!\n");
}
