// Decoding of requests: requests that do not decode (short, wrong tags,
// unknown command bytes, nonsense lengths, trailing bytes, hostile nesting),
// which are answered with a text while the executor goes on serving.
#include "tests/server/executor_testutil.h"

#include "server/request.h"

namespace exectest {
namespace {

Request decoded(const Bytes &b) {
  Request q;
  std::string err;
  EXPECT_EQ(request_decode(b.data(), b.size(), q, err), 1) << err;
  return q;
}

std::string refusal(const Bytes &b) {
  Request q;
  std::string err;
  EXPECT_EQ(request_decode(b.data(), b.size(), q, err), 0);
  return err;
}

TEST(Request, MalformedRequestsAreRefusedWithWhatIsWrong) {
  EXPECT_EQ(refusal({}), "(TAVRIN 107) Leere Anfrage");
  EXPECT_EQ(refusal({'q'}), "(TAVRIN 103) Unbekannter Anfragecode 'q'");
  EXPECT_EQ(refusal({0x01}), "(TAVRIN 103) Unbekannter Anfragecode 0x01");
  EXPECT_EQ(refusal({'1'}), "(TAVRIN 101) Anfrage endet vorzeitig: <Datenbankname> erwartet");
  EXPECT_EQ(refusal({'1', 'b', 2, 0, 'X', 0}),
            "(TAVRIN 102) Anfrage fehlerhaft an Byte 1: <Datenbankname> erwartet, 'b' gefunden");
  // A length beyond the request, a length of zero, a text without its zero.
  EXPECT_EQ(refusal({'1', 'a', 0xFF, 0xFF, 'X', 0}),
            "(TAVRIN 101) Anfrage endet vorzeitig: <Datenbankname> erwartet");
  EXPECT_THAT(refusal({'1', 'a', 0, 0}), HasSubstr("Länge 0"));
  EXPECT_THAT(refusal({'1', 'a', 2, 0, 'X', 'Y'}), HasSubstr("ohne Endbyte 0"));
  EXPECT_EQ(refusal({'1', 'a', 3, 0, '1', 'X', 0}), "(TAVRIN 105) Ungültiger Name '1X'");
  EXPECT_EQ(refusal(command('6', "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345")),
            "(TAVRIN 105) Ungültiger Name 'ABCDEFGHIJKLMNOPQRSTUVWXYZ012345'");
  Bytes extra = command('1', "DEMO");
  extra.push_back('x');
  EXPECT_EQ(refusal(extra), "(TAVRIN 104) Anfrage fehlerhaft: 1 überzählige Bytes am Ende");
  // Every prefix of a valid statement is refused, never read past its end.
  Bytes full = encode("select a from t where b in (select c from u where d = 'x') order by a");
  for (size_t n = 1; n < full.size(); ++n) {
    SCOPED_TRACE(n);
    refusal(Bytes(full.begin(), full.begin() + static_cast<long>(n)));
  }
  // Postfix expressions that do not add up.
  EXPECT_THAT(refusal({'G', 'a', 2, 0, 'T', 0, 'w', 'y', 'w', 'x'}), HasSubstr("leerer Stapel"));
  EXPECT_THAT(refusal({'G', 'a', 2, 0, 'T', 0, 'w', 'd', 1, 0, 0, 0, 'd', 2, 0, 0, 0, 'w', 'x'}),
              HasSubstr("2 Teilausdrücke"));
  EXPECT_THAT(refusal({'G', 'a', 2, 0, 'T', 0, 'w', 'd', 9, 0, 0, 0, 'M', 'w', 'x'}),
              HasSubstr("Anzahl der IN-Elemente"));
  EXPECT_THAT(refusal({'T', 'd', 0xFF, 0xFF, 0xFF, 0xFF}), HasSubstr("MAX: negative"));
  Bytes deep{'G', 'a', 2, 0, 'T', 0, 'w', 'd', 1, 0, 0, 0};
  for (int i = 0; i < 150; ++i) deep.push_back('T');
  deep.insert(deep.end(), {'w', 'x'});
  EXPECT_EQ(refusal(deep),
            "(TAVRIN 106) Anfrage zu tief geschachtelt (Ausdruck, höchstens 100 Ebenen)");
  // Eight levels of subqueries are taken, more are refused.
  std::string eight = "select a from t";
  for (int i = 0; i < 8; ++i) eight = "select a from t where a in (" + eight + ")";
  decoded(encode(eight));
  Bytes nested{'C'};
  for (int i = 0; i < 12; ++i) nested.insert(nested.end(), {'W', 'v', 'a', 2, 0, 'T', 0, 'w', '='});
  nested.insert(nested.end(), {'W', 'v', 'a', 2, 0, 'T', 0});
  EXPECT_EQ(refusal(nested),
            "(TAVRIN 106) Anfrage zu tief geschachtelt (Unterabfragen, höchstens 8 Ebenen)");
}

TEST_F(ExecutorTest, BadRequestsAreAnsweredAndServingGoesOn) {
  open("DEMO");
  Answer a = run({'1', 'a', 0xFF});
  EXPECT_EQ(a.kind, '0');
  EXPECT_EQ(a.error, "(TAVRIN 101) Anfrage endet vorzeitig: <Datenbankname> erwartet");
  EXPECT_EQ(run({'?'}).kind, '0');
  // The channel still has its database and works.
  EXPECT_EQ(good("SELECT COUNT(*) FROM ARTIKEL").kind, '2');
  // Close and notice get no answer even with stray bytes after them.
  EXPECT_TRUE(raw({'W', 1, 2}, 0, EXEC_NO_ANSWER).empty());
  EXPECT_TRUE(raw({'2', 'x'}, 0, EXEC_NO_ANSWER).empty());
  EXPECT_EQ(bad("SELECT * FROM KUNDE"), "(TAVRIN 201) Keine Datenbank geöffnet");
  EXPECT_EQ(run(command('1', "ZU_LANGER_NAME_12345")).error,
            "(TAVRIN 105) Ungültiger Name 'ZU_LANGER_NAME_12345'");
  // A message-text request is logged and, like close and notice, never
  // answered: the client reads nothing after it, even when it is broken.
  EXPECT_TRUE(raw({'0', 'b', 6, 0, 'H', 'a', 'l', 'l', 'o', 0}, 0, EXEC_NO_ANSWER).empty());
  EXPECT_THAT(log, HasSubstr("message: Hallo"));
  EXPECT_TRUE(raw({'0', 'b', 6, 0, 'H'}, 0, EXEC_NO_ANSWER).empty());
  EXPECT_THAT(log, HasSubstr("error: (TAVRIN 101)"));
}

} // namespace
} // namespace exectest
