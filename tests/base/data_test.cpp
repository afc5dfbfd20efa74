// Typed values: type table, conversions, ordering, size-prefixed records and
// the random numbers.
#include "base/data.h"
#include "base/date.h"
#include "base/msg.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string g_out;
void collect(const char *text) { g_out += text; }

// Collects the messages printed while it lives.
struct Capture {
  MsgHandler old;
  Capture() : old(msg_set_handler(collect)) { g_out.clear(); }
  ~Capture() { msg_set_handler(old); }
};

// Death tests match stderr only: route messages there in the child.
void to_stderr() {
  msg_set_handler([](const char *t) { std::fputs(t, stderr); });
}

TEST(DataTypes, NamesAndSizes) {
  EXPECT_EQ(_GetTypeId("LOGICAL"), 1);
  EXPECT_EQ(_GetTypeId("BINARY"), 18); // tested twelfth, numbered last
  EXPECT_EQ(_GetTypeId("DATE"), 12);
  EXPECT_EQ(_GetTypeSize(DT_TIME), 3);
  EXPECT_EQ(_GetTypeSize(DT_DURA), 12);
  EXPECT_EQ(_GetTypeSize(DT_HKEY), 4);
}

TEST(DataTypesDeathTest, UnknownNamesAndSizesEndTheProgram) {
  EXPECT_EXIT((to_stderr(), _GetTypeId("binary")), ::testing::ExitedWithCode(1),
              "\\(_GetTypeId\\) Error: Type-name 'binary' not defined!");
  EXPECT_EXIT((to_stderr(), _GetTypeSize(11)), ::testing::ExitedWithCode(1),
              "\\(_GetTypeSize\\) Error: Size for type-id '11' not defined!");
  EXPECT_EXIT((to_stderr(), _GetTypeSize(19)), ::testing::ExitedWithCode(1), "type-id '19'");
}

TEST(DataAssign, IntegersNarrowToLowBitsAndFloatsTruncate) {
  int32_t i = 70000;
  int16_t s = 0;
  DATA_Assign(&s, DT_SHORT, &i, DT_INT);
  EXPECT_EQ(s, 4464);
  double d = -2.7;
  DATA_Assign(&i, DT_INT, &d, DT_DOUBLE);
  EXPECT_EQ(i, -2);
  d = 70000.9;
  DATA_Assign(&s, DT_SHORT, &d, DT_DOUBLE);
  EXPECT_EQ(s, 4464);
  s = -1;
  DATA_Assign(&i, DT_INT, &s, DT_SHORT);
  EXPECT_EQ(i, -1);
  uint16_t us = 65535;
  DATA_Assign(&i, DT_INT, &us, DT_USHORT);
  EXPECT_EQ(i, 65535);
  uint32_t u = 4000000000u;
  DATA_Assign(&d, DT_DOUBLE, &u, DT_UINT);
  EXPECT_EQ(d, 4e9);
  d = 3e9;
  DATA_Assign(&u, DT_ULONG, &d, DT_DOUBLE);
  EXPECT_EQ(u, 3000000000u);
  float f = 0;
  d = 0.1;
  DATA_Assign(&f, DT_FLOAT, &d, DT_DOUBLE);
  EXPECT_EQ(f, 0.1f);
  i = -5;
  DATA_Assign(&f, DT_FLOAT, &i, DT_INT);
  EXPECT_EQ(f, -5.0f);
  d = 1e300; // beyond single precision: infinity, without undefined behaviour
  DATA_Assign(&f, DT_FLOAT, &d, DT_DOUBLE);
  EXPECT_TRUE(std::isinf(f));
}

TEST(DataAssign, TextsToNumbersAndEmptyMarker) {
  Capture c;
  double d = 1;
  DATA_Assign(&d, DT_DOUBLE, "  ", DT_STRING);
  EXPECT_EQ(d, -1e20);
  float f = 1;
  DATA_Assign(&f, DT_FLOAT, "", DT_STRING);
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  EXPECT_EQ(bits, 0xE0AD78ECu);
  EXPECT_EQ(g_out, "");

  DATA_Assign(&d, DT_DOUBLE, "12.5 ", DT_STRING);
  EXPECT_EQ(d, 12.5);
  EXPECT_EQ(g_out, "");
  DATA_Assign(&f, DT_FLOAT, "12.5 ", DT_STRING);
  EXPECT_EQ(f, 12.5f);
  EXPECT_EQ(g_out, "(DATA_Assign) Warning: Illegal float-string '12.5 '\n");
  g_out.clear();
  DATA_Assign(&d, DT_DOUBLE, "abc", DT_STRING);
  EXPECT_EQ(d, 0.0);
  EXPECT_EQ(g_out, "(DATA_Assign) Warning: Illegal float-string 'abc'\n");
}

TEST(DataAssign, NumbersAndTextsToStrings) {
  char buf[400];
  float f = 1.5f;
  DATA_Assign(buf, DT_STRING, &f, DT_FLOAT);
  EXPECT_STREQ(buf, "1.5");
  f = 100.0f;
  DATA_Assign(buf, DT_STRING, &f, DT_FLOAT);
  EXPECT_STREQ(buf, "100");
  double d = -0.25;
  DATA_Assign(buf, DT_KEY, &d, DT_DOUBLE);
  EXPECT_STREQ(buf, "-0.25");
  d = 1e300; // the longest kind of "%lf" text
  DATA_Assign(buf, DT_STRING, &d, DT_DOUBLE);
  EXPECT_EQ(std::strlen(buf), 301u);
  DATA_Assign(buf, DT_HKEY, "AB  ", DT_KEY);
  EXPECT_STREQ(buf, "AB  ");
}

TEST(DataAssign, CalendarAndCharacterTypes) {
  DATE a{2003, 7, 12}, b{1800, 1, 1};
  DATA_Assign(&b, DT_DATE, &a, DT_DATE);
  EXPECT_EQ(DATE_Compare(&a, &b), 0);
  // TIME and DATI pass the type check but are not copied.
  TIME t1{1, 2, 3}, t2{4, 5, 6};
  DATA_Assign(&t2, DT_TIME, &t1, DT_TIME);
  EXPECT_EQ(t2.hour, 4);
  DATI x{2003, 7, 12, 1, 2, 3, 4}, y{1800, 1, 1, 0, 0, 0, 0};
  DATA_Assign(&y, DT_DATI, &x, DT_DATI);
  EXPECT_EQ(y.year, 1800);
  char c = 'x', l = 1;
  DATA_Assign(&c, DT_CHAR, &l, DT_LOGICAL);
  EXPECT_EQ(c, 1);
}

TEST(DataAssignDeathTest, RefusedPairingsEndTheProgram) {
  int32_t i = 5;
  char buf[32];
  DATI t{};
  EXPECT_EXIT((to_stderr(), DATA_Assign(buf, DT_STRING, &i, DT_INT)), ::testing::ExitedWithCode(1),
              "\\(DATA_Assign\\) Illegal string assignment");
  EXPECT_EXIT((to_stderr(), DATA_Assign(&i, DT_INT, "5", DT_STRING)), ::testing::ExitedWithCode(1),
              "\\(DATA_Assign\\) Illegal int-assignment");
  EXPECT_EXIT((to_stderr(), DATA_Assign(buf, DT_CHAR, &i, DT_INT)), ::testing::ExitedWithCode(1),
              "\\(DATA_Assign\\) Illegal character assignment");
  EXPECT_EXIT((to_stderr(), DATA_Assign(&t, DT_DURA, &t, DT_DURA)), ::testing::ExitedWithCode(1),
              "\\(DATA_Assign\\) Illegal assignment");
}

int cmp_str(const char *a, const char *b) { return DATA_Compare(a, DT_STRING, b, DT_STRING); }

TEST(DataCompare, StringRule) {
  EXPECT_EQ(cmp_str("abc", "abc  "), 0);
  EXPECT_EQ(cmp_str("abc  ", "abc"), 0);
  EXPECT_EQ(cmp_str("Abc", "abc  "), -1); // blank rule is exact in case
  EXPECT_EQ(cmp_str("Abc", "abc"), 0);
  EXPECT_EQ(cmp_str("Über", "Uber"), 0);
  EXPECT_EQ(cmp_str("Öl", "ol"), 0);
  EXPECT_EQ(cmp_str("über", "apfel"), -1); // lower-case umlaut stays a negative byte
  EXPECT_EQ(cmp_str("ab", "abc"), -1);
  EXPECT_EQ(cmp_str("abd", "ABC"), 1);
  EXPECT_EQ(cmp_str("", ""), 0);
  EXPECT_EQ(DATA_Compare("K1", DT_KEY, "k1", DT_HKEY), 0);
}

TEST(DataCompare, NumericPromotions) {
  int16_t s = -1;
  uint32_t u = 5;
  int32_t i = 5;
  EXPECT_EQ(DATA_Compare(&s, DT_SHORT, &u, DT_UINT), 1); // unsigned comparison
  EXPECT_EQ(DATA_Compare(&s, DT_SHORT, &i, DT_INT), -1);
  EXPECT_EQ(DATA_Compare(&u, DT_ULONG, &i, DT_LONG), 0);
  double d = 0.1;
  float f = 0.1f;
  EXPECT_EQ(DATA_Compare(&d, DT_DOUBLE, &f, DT_FLOAT), 0); // rounded to single
  EXPECT_EQ(DATA_Compare(&f, DT_FLOAT, &d, DT_DOUBLE), 0);
  double wide = f;
  EXPECT_EQ(DATA_Compare(&d, DT_DOUBLE, &wide, DT_DOUBLE), -1);
  i = 16777217; // not a float: compares equal in single precision
  f = 16777216.0f;
  EXPECT_EQ(DATA_Compare(&i, DT_INT, &f, DT_FLOAT), 0);
  d = 16777216.0;
  EXPECT_EQ(DATA_Compare(&i, DT_INT, &d, DT_DOUBLE), 1);
  uint16_t us = 40000;
  s = 30000;
  EXPECT_EQ(DATA_Compare(&us, DT_USHORT, &s, DT_SHORT), 1);
  char hi = static_cast<char>(200), a = 'A';
  EXPECT_EQ(DATA_Compare(&hi, DT_CHAR, &a, DT_LOGICAL), -1); // signed bytes
}

TEST(DataCompareDeathTest, RefusedPairingsEndTheProgram) {
  int16_t s = 1;
  DATE d{2003, 1, 1};
  DATI t{};
  EXPECT_EXIT((to_stderr(), DATA_Compare(&s, DT_SHORT, "1", DT_STRING)),
              ::testing::ExitedWithCode(1), "\\(DATA_Compare\\) Illegal short compare");
  EXPECT_EXIT((to_stderr(), DATA_Compare(&d, DT_DATE, &t, DT_DATI)), ::testing::ExitedWithCode(1),
              "Illegal date compare");
  EXPECT_EXIT((to_stderr(), DATA_Compare(&t, DT_DURA, &t, DT_DURA)), ::testing::ExitedWithCode(1),
              "\\(DATA_Compare\\) Illegal compare");
}

struct Rec {
  int32_t size;
  char text[12];
};

TEST(Struct, AssignAndCompareBySizeField) {
  Rec a{sizeof(Rec), "hello"}, b{sizeof(Rec), "world"};
  EXPECT_LT(STRUCT_Compare(&a, &b), 0);
  EXPECT_GT(STRUCT_Compare(&b, &a), 0);
  STRUCT_Assign(&b, &a);
  EXPECT_EQ(STRUCT_Compare(&a, &b), 0);
  EXPECT_STREQ(b.text, "hello");

  Capture c;
  Rec z{0, "zero"};
  STRUCT_Assign(&b, &z); // size 0: warning, nothing copied
  EXPECT_EQ(g_out, "(STRUCT_Assign) Warning: Struct not initialized (size 0)???\n");
  EXPECT_STREQ(b.text, "hello");
}

TEST(StructDeathTest, DifferentSizesEndTheProgram) {
  Rec a{sizeof(Rec), "a"}, b{8, "b"};
  EXPECT_EXIT((to_stderr(), STRUCT_Compare(&a, &b)), ::testing::ExitedWithCode(1),
              "\\(STRUCT_Compare\\) Incompatible operands!");
}

TEST(Random, RangesAndEmptyRange) {
  for (int i = 0; i < 500; ++i) {
    uint32_t r = 99;
    DATA_GetNumber(nullptr, &r, 1);
    EXPECT_LE(r, 8u); // the upper bound is never reached
    DATA_GetNumber(nullptr, &r, 8);
    EXPECT_LT(r, 99999999u);
    int v = irand(-3, 4);
    EXPECT_GE(v, -3);
    EXPECT_LT(v, 4);
  }
  Capture c;
  EXPECT_EQ(irand(10, 3), 3);
  EXPECT_EQ(g_out, "(irand) Wertebereich (10 - 3) ungültig!\n");
}

TEST(RandomDeathTest, BadLengthEndsTheProgram) {
  uint32_t r;
  EXPECT_EXIT((to_stderr(), DATA_GetNumber(nullptr, &r, 9)), ::testing::ExitedWithCode(1),
              "\\(DATA_GetNumber\\) Invalid parameter len \\(9\\)!");
  EXPECT_EXIT((to_stderr(), DATA_GetNumber(nullptr, &r, 0)), ::testing::ExitedWithCode(1),
              "len \\(0\\)");
}

} // namespace
