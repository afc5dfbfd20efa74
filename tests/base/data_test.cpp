// Typed values: type names and sizes, conversions, ordering, size-prefixed
// records and the random numbers.
#include "base/data.h"
#include "base/date.h"

#include <cmath>
#include <cstring>

#include "base_testutil.h"

namespace {

using namespace base_test;

// The destination of type D after assigning `src` of type `stype` to it.
template <typename D, typename S> D assigned(int dtype, S src, int stype) {
  D dst{};
  DATA_Assign(&dst, dtype, &src, stype);
  return dst;
}
template <typename D> D parsed(int dtype, const char *text) {
  D dst{1};
  DATA_Assign(&dst, dtype, text, DT_STRING);
  return dst;
}
template <typename L, typename R> int cmp(L l, int ltype, R r, int rtype) {
  return DATA_Compare(&l, ltype, &r, rtype);
}

TEST(DataAssign, IntegersNarrowFloatsTruncateAndTimesAreNotCopied) {
  EXPECT_EQ(_GetTypeId("BINARY"), 18);
  EXPECT_EQ(_GetTypeSize(DT_TIME), 3); // packed calendar records
  EXPECT_EQ((assigned<int16_t>(DT_SHORT, int32_t{70000}, DT_INT)), 4464);
  EXPECT_EQ((assigned<int32_t>(DT_INT, -2.7, DT_DOUBLE)), -2);
  EXPECT_EQ((assigned<int16_t>(DT_SHORT, 70000.9, DT_DOUBLE)), 4464);
  EXPECT_EQ((assigned<int32_t>(DT_INT, uint16_t{65535}, DT_USHORT)), 65535);
  EXPECT_EQ((assigned<double>(DT_DOUBLE, uint32_t{4000000000u}, DT_UINT)), 4e9);
  EXPECT_EQ((assigned<uint32_t>(DT_ULONG, 3e9, DT_DOUBLE)), 3000000000u);
  // Beyond single precision: infinity, without undefined behaviour.
  EXPECT_TRUE(std::isinf(assigned<float>(DT_FLOAT, 1e300, DT_DOUBLE)));
  EXPECT_EQ((assigned<char>(DT_CHAR, char{1}, DT_LOGICAL)), 1);

  // TIME and DATI pass the type check but are not copied; DATE is.
  EXPECT_EQ((assigned<TIME>(DT_TIME, TIME{1, 2, 3}, DT_TIME).hour), 0);
  EXPECT_EQ((assigned<DATI>(DT_DATI, DATI{2003, 7, 12, 1, 2, 3, 4}, DT_DATI).year), 0);
  DATE a{2003, 7, 12}, b = assigned<DATE>(DT_DATE, a, DT_DATE);
  EXPECT_EQ(DATE_Compare(&a, &b), 0);
}

TEST(DataAssign, TextsAndNumbersBothWays) {
  Capture c;
  EXPECT_EQ(parsed<double>(DT_DOUBLE, "  "), -1e20);
  uint32_t bits;
  float f = parsed<float>(DT_FLOAT, "");
  std::memcpy(&bits, &f, 4);
  EXPECT_EQ(bits, 0xE0AD78ECu); // the marker in single precision
  EXPECT_EQ(parsed<double>(DT_DOUBLE, "12.5 "), 12.5);
  EXPECT_EQ(c.take(), "");
  // FLOAT parsing is strict about what follows the number, DOUBLE is not.
  EXPECT_EQ(parsed<float>(DT_FLOAT, "12.5 "), 12.5f);
  EXPECT_EQ(c.take(), "(DATA_Assign) Warning: Illegal float-string '12.5 '\n");
  EXPECT_EQ(parsed<double>(DT_DOUBLE, "abc"), 0.0);
  EXPECT_EQ(c.take(), "(DATA_Assign) Warning: Illegal float-string 'abc'\n");

  char buf[400];
  auto text = [&](auto v, int type, int dtype = DT_STRING) {
    DATA_Assign(buf, dtype, &v, type);
    return std::string(buf);
  };
  EXPECT_EQ(text(1.5f, DT_FLOAT), "1.5");
  EXPECT_EQ(text(100.0f, DT_FLOAT), "100"); // zeros go only after the point
  EXPECT_EQ(text(-0.25, DT_DOUBLE, DT_KEY), "-0.25");
  EXPECT_EQ(text(1e300, DT_DOUBLE).size(), 301u); // the longest kind of "%lf" text
  DATA_Assign(buf, DT_HKEY, "AB  ", DT_KEY);
  EXPECT_STREQ(buf, "AB  ");
}

TEST(DataCompare, StringsFoldCaseAndLatin1CapitalsAndIgnoreTrailingBlanks) {
  const struct {
    const char *a, *b;
    int want;
  } cases[] = {
      {"abc  ", "abc", 0},
      {"Abc", "abc  ", -1}, // blank rule is exact in case
      {"Abc", "abc", 0},    {"Über", "Uber", 0},
      {"Öl", "ol", 0},      {"über", "apfel", -1}, // lower-case umlaut stays a negative byte
      {"ab", "abc", -1},    {"abd", "ABC", 1},
  };
  for (const auto &k : cases)
    EXPECT_EQ(DATA_Compare(k.a, DT_STRING, k.b, DT_STRING), k.want) << k.a << " / " << k.b;
  EXPECT_EQ(DATA_Compare("K1", DT_KEY, "k1", DT_HKEY), 0);
}

TEST(DataCompare, NumbersFollowTheArithmeticPromotions) {
  EXPECT_EQ(cmp(int16_t{-1}, DT_SHORT, uint32_t{5}, DT_UINT), 1); // unsigned comparison
  EXPECT_EQ(cmp(int16_t{-1}, DT_SHORT, int32_t{5}, DT_INT), -1);
  EXPECT_EQ(cmp(uint32_t{5}, DT_ULONG, int32_t{5}, DT_LONG), 0);
  EXPECT_EQ(cmp(uint16_t{40000}, DT_USHORT, int16_t{30000}, DT_SHORT), 1);
  // A double meets a float in single precision.
  EXPECT_EQ(cmp(0.1, DT_DOUBLE, 0.1f, DT_FLOAT), 0);
  EXPECT_EQ(cmp(0.1, DT_DOUBLE, double(0.1f), DT_DOUBLE), -1);
  EXPECT_EQ(cmp(int32_t{16777217}, DT_INT, 16777216.0f, DT_FLOAT), 0);
  EXPECT_EQ(cmp(int32_t{16777217}, DT_INT, 16777216.0, DT_DOUBLE), 1);
  EXPECT_EQ(cmp(char(200), DT_CHAR, 'A', DT_LOGICAL), -1); // signed bytes
}

struct Rec {
  int32_t size;
  char text[12];
};

TEST(Struct, AssignAndCompareBySizeField) {
  Rec a{sizeof(Rec), "hello"}, b{sizeof(Rec), "world"};
  EXPECT_LT(STRUCT_Compare(&a, &b), 0);
  STRUCT_Assign(&b, &a);
  EXPECT_EQ(STRUCT_Compare(&a, &b), 0);
  EXPECT_STREQ(b.text, "hello");

  Capture c;
  Rec z{0, "zero"};
  STRUCT_Assign(&b, &z); // size 0: warning, nothing copied
  EXPECT_EQ(c.take(), "(STRUCT_Assign) Warning: Struct not initialized (size 0)???\n");
  EXPECT_STREQ(b.text, "hello");
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
  EXPECT_EQ(c.take(), "(irand) Wertebereich (10 - 3) ungültig!\n");
}

TEST(DataDeathTest, UnknownTypesAndRefusedPairingsEndTheProgram) {
  EXPECT_FATAL(_GetTypeId("binary"), "\\(_GetTypeId\\) Error: Type-name 'binary' not defined!");
  EXPECT_FATAL(_GetTypeSize(DT_STRING),
               "\\(_GetTypeSize\\) Error: Size for type-id '11' not defined!");

  int32_t i = 5;
  int16_t s = 1;
  char buf[32];
  EXPECT_FATAL(DATA_Assign(buf, DT_STRING, &i, DT_INT),
               "\\(DATA_Assign\\) Illegal string assignment");
  EXPECT_FATAL(DATA_Compare(&s, DT_SHORT, "1", DT_STRING),
               "\\(DATA_Compare\\) Illegal short compare");

  Rec a{sizeof(Rec), "a"}, b{8, "b"};
  EXPECT_FATAL(STRUCT_Compare(&a, &b), "\\(STRUCT_Compare\\) Incompatible operands!");
  uint32_t r;
  EXPECT_FATAL(DATA_GetNumber(nullptr, &r, 9),
               "\\(DATA_GetNumber\\) Invalid parameter len \\(9\\)!");
}

} // namespace
