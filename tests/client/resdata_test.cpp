// Result data: value-to-text of every type, the binary escape, accessors,
// DBfillbinary and the fill and delete operations with their messages.
#include "db/client/resdata.h"

#include <clocale>

#include "client_testutil.h"

using namespace ct;

TEST(ResData, ValueToText) {
  const struct {
    unsigned char type;
    Bytes cell;
    const char *want;
  } cases[] = {
      {DBTYPE_SMALLINT, bin(int16_t(-32768)), "-32768"},
      {DBTYPE_INTEGER, bin(int32_t(-2147483647)), "-2147483647"},
      {DBTYPE_CHARACTER, text("Straße"), "Straße"},
      {DBTYPE_DATE, date(800, 1, 9), "0800-01-09"},
      {DBTYPE_TIME, time(7, 5, 0), "07:05:00"},
      {DBTYPE_TIMESTAMP, stamp(1800, 1, 1, 0, 0, 0, 0), "1800-01-01-00.00.00.000000"},
      {DBTYPE_TIMESTAMP, stamp(2026, 11, 22, 23, 59, 58, 42), "2026-11-22-23.59.58.000042"},
      {'Q', Bytes{1, 2}, "<datatype unknown>"},
      // Binary values: printable bytes as they are ("$" and 0xA7 doubled),
      // one other byte as "$" and hex, a run of them as hex between 0xA7.
      {DBTYPE_BINARY, binary({0x41, 0x00, 0x01, 0x42}),
       "A\xA7"
       "0001\xA7"
       "B"},
      {DBTYPE_BINARY, binary({0x41, 0x00, 0x42}), "A$00B"},
      {DBTYPE_BINARY, binary({'$', 0xA7, 'x', 0xA7}), "$$\xA7\xA7x\xA7\xA7"},
      {DBTYPE_BINARY, binary({' ', '~', 0x7F, 0x1F, 0xFF}),
       " ~\xA7"
       "7F1FFF\xA7"},
      {DBTYPE_BINARY, binary({}), ""},
  };
  for (const auto &c : cases) EXPECT_EQ(column_cells(c.type, {c.cell}), c.want) << c.want;
  // The largest value the wire can carry.
  Bytes big(65533, 0x80);
  EXPECT_EQ(column_cells(DBTYPE_BINARY, {binary(big)}).size(), 2 * big.size() + 2);

  // The float ladder keeps about 15 significant digits, then drops zeros.
  // A German process locale must not turn "." into ",".
  std::setlocale(LC_ALL, "de_DE.UTF-8");
  std::string floats;
  for (double v : {0.5, 2.0, 0.0, 123456789012345.0, 1.0 / 3, 0.6, 2.0 / 3 + 1, 1e12 + 0.25,
                   -1.0 / 3, -1e20, 1e-15})
    floats += column_cells(DBTYPE_FLOAT, {bin(v)}) + " ";
  // 0.6 rounds to 1, which leaves it 13 decimals.
  EXPECT_EQ(floats, "0.5 2 0 123456789012345 0.33333333333333 0.6 1.6666666666667 "
                    "1000000000000.2 -0.33333333333333 -100000000000000000000 0 ");
  std::setlocale(LC_ALL, "C");
}

TEST(ResData, AccessorsCacheAndRawValues) {
  // The fixed-size values of columns S, I, F, T, D and TS.
  const Bytes fixed[] = {bin(int16_t(-3)), bin(int32_t(77)),  bin(6.25),
                         time(1, 2, 3),    date(2000, 2, 29), stamp(2001, 2, 3, 4, 5, 6, 7)};
  Answer a('2');
  a.i32(9).i32(1);
  a.column("C", DBTYPE_CHARACTER, 2).column("B", DBTYPE_BINARY, 10);
  a.column("S", DBTYPE_SMALLINT, 2).column("I", DBTYPE_INTEGER, 4);
  a.column("F", DBTYPE_FLOAT, 8).column("T", DBTYPE_TIME, 3).column("D", DBTYPE_DATE, 4);
  a.column("TS", DBTYPE_TIMESTAMP, 12).column("X", 'x', 1);
  a.value(Bytes{1, 0}).value(binary({1, 2}));
  for (const Bytes &v : fixed) a.value(v);
  a.value(Bytes{'?'});
  DBRESULT *r = decode(a.b);
  ASSERT_EQ(DBntuples(r), 1);
  // TIME and DATE are numbered the other way round from their wire codes.
  EXPECT_EQ(DBfieldtype(r, 5), DBFT_TIME);
  EXPECT_EQ(DBfieldtype(r, 6), DBFT_DATE);
  EXPECT_EQ(DBfieldtype(r, 8), -1);
  EXPECT_EQ(DBfieldtype(r, 9), -1);
  EXPECT_EQ(DBfieldsize(r, -1), -1);
  EXPECT_EQ(DBgetvalue(r, 1, 0), nullptr);
  EXPECT_EQ(DBgetvalue(r, 0, 9), nullptr);
  EXPECT_EQ(DBgetrawvalue(r, -1, 0), nullptr);

  // Texts are made once and kept.
  const char *f = DBgetvalue(r, 0, 4);
  EXPECT_STREQ(f, "6.25");
  EXPECT_EQ(DBgetvalue(r, 0, 4), f);
  // A one-row result takes small blocks, not full-size ones.
  EXPECT_LT(RESDATA_Memory(&r->data) + RESDATA_Text_Memory(&r->data), 8000u);

  // Copies into typed variables take exactly the type's bytes.
  char flag[4] = "zz";
  ASSERT_EQ(DBfillbinary(r, flag, 0, 0), 1);
  EXPECT_STREQ(flag, "1z");
  for (int c = 1; c < 8; ++c) {
    Bytes want = c == 1 ? binary({1, 2}) : fixed[c - 2];
    unsigned char out[16];
    std::memset(out, 0xEE, sizeof out);
    ASSERT_EQ(DBfillbinary(r, out, 0, c), 1);
    EXPECT_EQ(Bytes(out, out + want.size() + 1), want + Bytes{0xEE}) << c;
  }
  {
    testmsg::Capture cap;
    char x[8];
    EXPECT_EQ(DBfillbinary(r, x, 0, 8), 0);
    EXPECT_EQ(cap.take(), "(DBfillbinary) Unknown datatype!\n");
  }

  // Raw cells when no text is wanted; character and binary stay texts.
  r->data.text_wanted = 0;
  int32_t raw;
  std::memcpy(&raw, DBgetvalue(r, 0, 3), 4);
  EXPECT_EQ(raw, 77);
  EXPECT_STREQ(DBgetvalue(r, 0, 1), "\xA7"
                                    "0102\xA7");
  DBclear(r);

  // A one-character flag column holding 0 gives "0"; longer texts copy.
  char c[10] = "xx";
  r = column_of(DBTYPE_CHARACTER, {Bytes{0}}, 2);
  DBfillbinary(r, c, 0, 0);
  DBclear(r);
  r = column_of(DBTYPE_CHARACTER, {text("Hallo")}, 9);
  DBfillbinary(r, c + 1, 0, 0);
  DBclear(r);
  EXPECT_STREQ(c, "0Hallo");

  // The line feed is appended once.
  r = DBresult_new();
  std::strcpy(r->message, "boom");
  EXPECT_STREQ(DBresult_error(r), "boom\n");
  EXPECT_STREQ(DBresult_error(r), "boom\n");
  DBclear(r);
}

TEST(ResData, TextFillingDeletingAndMessages) {
  testmsg::Capture cap;
  DBRESULT *r = DBresult_new();
  RESDATA *d = &r->data;
  EXPECT_EQ(RESDATA_Fill(d, "x"), 0); // no columns yet
  EXPECT_EQ(cap.take(), "(RESDATA_Fill) Inkonsistent binary definition\n");
  RESDATA_Header_Data(d, "A", DBTYPE_CHARACTER, 10);
  RESDATA_Header_Data(d, "B", DBTYPE_FLOAT, 8);
  for (const char *t : {"a0", "b0", "a1", "b1", "a2", "b2"}) EXPECT_EQ(RESDATA_Fill(d, t), 1);

  cap.take();
  EXPECT_EQ(RESDATA_Header_Data(d, "C", DBTYPE_INTEGER, 4), 0);
  EXPECT_EQ(RESDATA_XY_Fill(d, 5, 0, "x"), 0);
  EXPECT_EQ(RESDATA_XY_Fill(d, 0, 2, "x"), 0);
  EXPECT_EQ(RESDATA_XY_Fill_Binary(d, 0, 0, "x", 2), 0);
  EXPECT_EQ(RESDATA_XY_Fill_Binary(d, 9, 0, "x", 2), 0);
  EXPECT_EQ(RESDATA_DelRow(d, 3), 0);
  EXPECT_EQ(RESDATA_DelRow(d, -1), 0);
  EXPECT_EQ(cap.take(), "(RESDATA_Header_Data) Inkonsistent header definition\n"
                        "(RESDATA_XY_Fill) Invalid Row/Column\n"
                        "(RESDATA_XY_Fill) Invalid Row/Column\n"
                        "(RESDATA_XY_Fill_Binary) Inkonsistent binary definition\n"
                        "(RESDATA_XY_Fill_Binary) Invalid Row/Column\n"
                        "(RESDATA) Invalid row-parameter in RESDATA_DelRow\n"
                        "(RESDATA) Invalid row-parameter in RESDATA_DelRow\n");

  // A text data set hands out its texts whatever the column type.
  EXPECT_EQ(RESDATA_XY_Fill(d, 1, 1, "B1"), 1);
  EXPECT_EQ(RESDATA_XY_Fill(d, 3, 0, "a3"), 1); // appends a row
  EXPECT_EQ(cells(r), "a0,b0|a1,B1|a2,b2|a3,");
  EXPECT_EQ(RESDATA_DelRow(d, 0), 1);
  EXPECT_EQ(cells(r), "a1,B1|a2,b2|a3,");
  char copy[8];
  EXPECT_EQ(DBfillbinary(r, copy, 1, 1), 1);
  EXPECT_STREQ(copy, "b2");

  // Binary cells into a text set are reported but stored, readable as text.
  cap.take();
  int32_t v = 0x00434241;
  EXPECT_EQ(RESDATA_Fill_Binary(d, "zz", 3), 1);
  EXPECT_EQ(RESDATA_Fill_Binary(d, &v, 4), 1);
  EXPECT_EQ(cap.take(), "(RESDATA_Fill_Binary) Inkonsistent binary definition\n"
                        "(RESDATA_Fill_Binary) Inkonsistent binary definition\n");
  EXPECT_STREQ(DBgetvalue(r, 3, 1), "ABC");
  DBclear(r);

  // Binary sets: cells are replaced in place, texts are made anew, and a
  // deleted row's cached texts do not show up in a later row.
  r = column_of(DBTYPE_INTEGER, {bin(int32_t(1)), bin(int32_t(2)), bin(int32_t(3))});
  d = &r->data;
  EXPECT_STREQ(DBgetvalue(r, 2, 0), "3");
  int32_t nine = 9;
  cap.take();
  EXPECT_EQ(RESDATA_XY_Fill_Binary(d, 0, 0, &nine, 4), 1);
  EXPECT_STREQ(DBgetvalue(r, 0, 0), "9");
  EXPECT_EQ(RESDATA_XY_Fill(d, 0, 0, "x"), 0);
  EXPECT_EQ(RESDATA_Fill(d, "x"), 0);
  EXPECT_EQ(cap.take(), "(RESDATA_XY_Fill) Inkonsistent binary definition\n"
                        "(RESDATA_Fill) Inkonsistent binary definition\n");
  EXPECT_EQ(RESDATA_DelRow(d, 1), 1);
  EXPECT_STREQ(DBgetvalue(r, 1, 0), "3");
  int32_t four = 4;
  RESDATA_Fill_Binary(d, &four, 4);
  EXPECT_STREQ(DBgetvalue(r, 2, 0), "4");
  DBclear(r);

  r = column_of(DBTYPE_CHARACTER, {text("a")});
  d = &r->data;
  cap.take();
  EXPECT_EQ(RESDATA_XY_Fill_Binary(d, 0, 0, "bcd", 3), 0);
  EXPECT_EQ(cap.take(), "(RESDATA_XY_Fill_Binary) String too long\n");
  EXPECT_STREQ(DBgetvalue(r, 0, 0), "a");
  DBclear(r);
}
