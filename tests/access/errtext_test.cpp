// Error texts without a server: placeholder expansion with its warnings,
// parameters as text, the record layouts of the ERROT and ERR modules.
#include "db/access/errtext.h"

#include <array>
#include <cstring>

#include "access_testutil.h"
#include "tests/client/client_testutil.h"

using namespace access_test;

TEST(ErrorExpand, PlaceholdersTakeParametersInOrderWithBothWarnings) {
  Capture cap;
  EXPECT_EQ(ERROR_Expand("Datei $2 fehlt in $1", 7, {"a.txt", "/tmp"}),
            "Datei a.txt fehlt in /tmp");
  EXPECT_EQ(cap.take(), "");
  // One parameter for two placeholders: the raw text and a warning.
  EXPECT_EQ(ERROR_Expand("Datei $1 fehlt in $2", 12, {"a.txt"}), "Datei $1 fehlt in $2");
  EXPECT_EQ(cap.take(), "Warning: Missing parameters (error-number '12')!\n");
  EXPECT_EQ(ERROR_Expand("$1 und $2", 13, {"x", "y", "z"}), "x und y");
  EXPECT_EQ(cap.take(), "Warning: Too many parameters (error-number '13')!\n");
  EXPECT_EQ(ERROR_Expand("Preis $ 10$", 14, {"A", "B"}), "Preis A 10B");
  EXPECT_EQ(ERROR_Expand("ohne", 15, {}), "ohne");
  EXPECT_EQ(cap.take(), "");
}

TEST(ErrorDo1DeathTest, EveryKindOfParameterAsText) {
  int16_t s = -12;
  int32_t l = 123456;
  double d = 2.75;
  char yes = 1, no = 0, c = 'Q';
  int i = 1;
  DATE date{2003, 7, 12};
  TIME time{10, 30, 5};
  DATI dati{2003, 7, 12, 10, 30, 5, 250};
  const std::pair<ERRPARAM, const char *> cases[] = {
      {ERRPARAM_Text("Kunde"), "Kunde"},
      {ERRPARAM_Value(DT_SHORT, &s), "-12"}, // 16 bits, sign-extended
      {ERRPARAM_Value(DT_DOUBLE, &d), "2"},  // stored numbers print as "%d"
      {ERRPARAM_Value(DT_LOGICAL, &yes), "Ja"},
      {ERRPARAM_Value(DT_LOGICAL, &no), "Nein"},
      {ERRPARAM_Value(DT_DATE, &date), "2003-07-12"},
      {ERRPARAM_Value(DT_TIME, &time), "10:30:05"},
      {ERRPARAM_Value(DT_DATI, &dati), "2003-07-12-10.30.05.000250"},
      // Values in their plain C form.
      {ERRPARAM{DT_DOUBLE, 1, &d, 3}, "2.750"},
      {ERRPARAM{DT_INT, 1, &l, 0}, "123456"},
      {ERRPARAM{DT_LOGICAL, 1, &i, 0}, "Ja"},
      {ERRPARAM{DT_CHAR, 1, &c, 0}, "Q"},
  };
  for (const auto &[param, want] : cases) {
    std::string t = "old";
    EXPECT_EQ(ERROR_Do1(&param, t), 1);
    EXPECT_EQ(t, want) << "type " << param.type;
  }
  unsigned char bin[4] = {2, 0, 1, 2};
  ERRPARAM p = ERRPARAM_Value(DT_BINARY, bin);
  std::string t;
  EXPECT_FATAL(ERROR_Do1(&p, t), "\\(ERROR_Do1\\) Error: Unknown typeid '18'!");
}

TEST(ErrorTables, RecordsMatchTheirDefinitionsAndWrongUseIsReported) {
  TABLE_DEF d;
  ASSERT_EQ(TABLE_Parse(ERROT_Definition(), &d), 1);
  EXPECT_EQ(d.size, static_cast<int>(sizeof(ERROT)));
  EXPECT_EQ(d.attribs.back().size, 255);
  ASSERT_EQ(TABLE_Parse(ERR_Definition(), &d), 1);
  EXPECT_EQ(d.size, static_cast<int>(sizeof(ERR)));

  ERR rec;
  ERR_Init(&rec);
  EXPECT_EQ(rec.size, static_cast<int32_t>(sizeof(ERR)));
  EXPECT_EQ(rec.Fehlercode, -32768);
  Capture cap;
  EXPECT_EQ(ERR_CmpLk(&rec), 0);
  EXPECT_EQ(cap.take(), "ERR_CmpLk: No logical key!\n");
  DBSESSION s;
  s.disabled = 1;
  EXPECT_EQ(ERR_Do(&s, 9, &rec), 0); // the key check comes first only for row operations
  EXPECT_EQ(cap.take(), "ERR_Do: 'iDB'-code unknown!\n");
  ERROT e;
  ERROT_Init(&e);
  EXPECT_EQ(ERROT_Do(&s, 0, &e), 0);
  EXPECT_EQ(cap.take(), "ERROT_Do: 'iDB'-code unknown!\n");
  EXPECT_EQ(ERROT_Query_Number("D   ", 12),
            "SELECT * FROM ERROT WHERE  SPRACHE      = 'D   ' AND    FEHLERNUMMER = 12");
}

TEST(TableRecords, InsertTextsQuoteAndWriteNullsAsEmpty) {
  TABLE_DEF d;
  ASSERT_EQ(TABLE_Parse("5,60|Name,11,10,4|Nr,3,4,14|Betrag,9,8,18|Tag,12,4,26|Ts,14,12,30|"
                        "Bin,18,8,42|Kurz,2,2,50",
                        &d),
            1);
  std::vector<unsigned char> r(60);
  TABLE_Record_Init(d, r.data());
  EXPECT_EQ(TABLE_Record_InsertText(d, r.data()),
            "(Name, Nr, Betrag, Tag, Ts, Bin, Kurz) VALUES ('', '', '', '', '', '', '')");
  auto put = [&](int idx, auto v) { std::memcpy(r.data() + idx, &v, sizeof v); };
  put(4, std::to_array("O'N\"\\"));
  put(14, int32_t{-5});
  put(18, 2.5);
  put(26, DATE{2003, 7, 12});
  put(30, DATI{2003, 7, 12, 10, 30, 0, 5});
  put(42, std::to_array<unsigned char>({4, 0, 'A', 0, 1, '$'}));
  put(50, int16_t{3});
  EXPECT_EQ(TABLE_Record_InsertText(d, r.data()),
            "(Name, Nr, Betrag, Tag, Ts, Bin, Kurz) VALUES ('O\\'N\\\"\\\\', -5, '2.5', "
            "'2003-07-12', '2003-07-12-10.30.00.000005', 'A\xA7"
            "0001\xA7$$', 3)");
  // The binary request carries what the parser makes of the text.
  ct::Bytes parsed = ct::encode("INSERT INTO tab " + TABLE_Record_InsertText(d, r.data()));
  TABLE_Record_InsertRequest(d, "tab", r.data());
  EXPECT_EQ(ct::Bytes(DBreq_data(), DBreq_data() + DBreq_length()), parsed);
  EXPECT_EQ(TABLE_Parse("5,10|Over,11,10,4", &d), 0); // outside the record
}
