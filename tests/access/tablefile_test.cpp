// TABLE files: saving sections, loading them into the same and into changed
// layouts with every conversion, passing over sections, damaged files.
#include "db/access/tablefile.h"

#include <cstring>

#include "access_testutil.h"
#include "base/data.h"
#include "base/date.h"

namespace {

using namespace access_test;
using Rec = std::vector<unsigned char>;

// A record of `size` bytes with its size field set.
Rec record(int size) {
  Rec r(static_cast<size_t>(size), 0);
  int32_t s = size;
  std::memcpy(r.data(), &s, 4);
  return r;
}
// Puts a value, or a text with its terminator, at byte idx of a record.
template <typename T> void put(Rec &r, int idx, T v) { std::memcpy(r.data() + idx, &v, sizeof v); }
void put(Rec &r, int idx, const char *s) { std::memcpy(r.data() + idx, s, std::strlen(s) + 1); }
std::string text_at(const unsigned char *r, int idx) {
  return reinterpret_cast<const char *>(r + idx);
}

// An open file, closed when it goes out of scope.
struct File {
  std::FILE *f;
  explicit File(const char *name, const char *mode = "rb") : f(std::fopen(name, mode)) {}
  File(const File &) = delete;
  ~File() {
    if (f) std::fclose(f);
  }
  operator std::FILE *() const { return f; }
};

// Saves `rows` with `definition` into file `name`, appending.
int save(DBSESSION *s, const char *name, const char *definition, std::vector<Rec> rows) {
  File f(name, "ab");
  size_t next = 0;
  Rec buf = rows.empty() ? Rec(4096) : rows[0];
  int ok = TABLE_File_Save(
      s, f, definition, buf.data(), [](void *, DBSESSION *) { return 1; },
      [&](void *rec, DBSESSION *) {
        if (next >= rows.size()) return 0;
        std::memcpy(rec, rows[next].data(), rows[next].size());
        ++next;
        return 1;
      });
  return ok;
}

struct Loaded {
  int ok = 0;
  std::vector<Rec> rows;
};

// Loads the next section for `definition` from an open file; init puts
// 0x5A into every byte after the size field.
Loaded load(DBSESSION *s, std::FILE *f, const char *definition, int size) {
  Loaded out;
  out.ok = TABLE_File_Load(
      s, f, definition,
      [size](void *rec) {
        std::memset(rec, 0x5A, static_cast<size_t>(size));
        int32_t sz = size;
        std::memcpy(rec, &sz, 4);
      },
      [&](void *rec, DBSESSION *) {
        auto *p = static_cast<unsigned char *>(rec);
        out.rows.emplace_back(p, p + size);
        return 1;
      });
  return out;
}

class TableFile : public ::testing::Test {
protected:
  ScratchDir dir;
  DBSESSION session;
  void SetUp() override {
    session.disabled = 1;
    db_reset_depth_for_test();
  }
  void TearDown() override { EXPECT_EQ(db_depth(), 0) << "every BEGIN level closed"; }
};

TEST_F(TableFile, LoadsIntoAChangedLayoutWithEveryConversion) {
  // Then: key, name of 20 bytes, a timestamp and a time kept as text, a code
  // as string, a number that was SHORT, an attribute that is gone now.
  const char *old_def = "9,100|K_Id,11,9,4|Name,11,20,13|Ts,14,27,33|Zeit,13,9,60|Code,11,6,69|"
                        "Zahl,2,2,75|Alt,11,5,77";
  Rec r = record(100);
  put(r, 4, "a\"b\\\"c");
  put(r, 13, "Müller");
  put(r, 33, "2003-07-12-10.30.00.250000");
  put(r, 60, "10:30:05");
  put(r, 69, "AB\x01");
  put(r, 75, int16_t{7});
  put(r, 77, "old");
  Rec r2 = r;
  put(r2, 33, "kein Zeitstempel!!!!!!!!!!"); // 26 characters, not a timestamp
  ASSERT_EQ(save(&session, "c.tbl", old_def, {r, r2}), 1);

  // Now: wider name, real DATI and TIME, code as binary, number as INT, and
  // a new attribute.
  const char *new_def =
      "9,80|K_Id,11,9,4|Name,11,30,13|Ts,14,12,43|Zeit,13,3,55|Code,18,7,58|Zahl,3,4,65|"
      "Neu,11,10,69";
  Capture cap;
  Loaded l = load(&session, File("c.tbl"), new_def, 80);
  ASSERT_EQ(l.ok, 1);
  ASSERT_EQ(l.rows.size(), 2u);
  const unsigned char *n = l.rows[0].data();
  EXPECT_EQ(text_at(n, 4), "a b\\\"c"); // quote in a key blanked, escaped one kept
  EXPECT_EQ(text_at(n, 13), "Müller");
  DATI ts, want_ts{2003, 7, 12, 10, 30, 0, 250000};
  std::memcpy(&ts, n + 43, sizeof ts);
  EXPECT_EQ(DATI_Compare(&ts, &want_ts), 0);
  EXPECT_EQ(Rec(n + 55, n + 58), (Rec{10, 30, 5}));
  EXPECT_EQ(Rec(n + 58, n + 63), (Rec{3, 0, 'A', 'B', 1})); // length, then the bytes
  EXPECT_EQ(n[65], 0x5A);                                   // different type: left as init made it
  EXPECT_EQ(n[69], 0x5A);                                   // not in the file: init's value

  std::string warnings; // the second record's Ts is no timestamp: only its size differs
  for (const char *ts : {"Attribute 'Ts' has been converted from string to ADATI!",
                         "Different sizes for attribute 'Ts' (12 vs. 27)!"})
    for (const char *w :
         {"Different sizes for attribute 'Name' (30 vs. 20)!", ts,
          "Attribute 'Zeit' has been converted from string to ATIME!",
          "Attribute 'Code' has been converted from string to binary!",
          "Different types for attribute 'Zahl' 3 vs. 2!", "Attribute 'Neu' not found!"})
      warnings += std::string("(TABLE_File_Load) Warning: ") + w + "\n";
  EXPECT_EQ(cap.take(), warnings);
  // The second record: the text that is no timestamp is copied as bytes.
  EXPECT_EQ(std::memcmp(l.rows[1].data() + 43, "kein Zeitste", 12), 0);
}

TEST_F(TableFile, SectionsLoadInOrderOrArePassedOver) {
  const char *d101 = "101,12|Code,11,5,4";
  const char *d100 = "100,12|Nr,3,4,4";
  Rec c = record(12), nr = record(12);
  put(c, 4, "AB");
  put(nr, 4, int32_t{42});
  ASSERT_EQ(save(&session, "two.tbl", d101, {}), 1); // empty 101 section
  ASSERT_EQ(save(&session, "two.tbl", d100, {nr}), 1);
  ASSERT_EQ(save(&session, "two.tbl", d101, {c}), 1);
  ASSERT_EQ(save(&session, "two.tbl", d100, {nr, nr}), 1);

  Capture cap;
  File f("two.tbl");
  // An empty section of another table is passed over with the message.
  Loaded l = load(&session, f, d100, 12);
  EXPECT_EQ(l.ok, 1);
  EXPECT_EQ(l.rows.size(), 1u);
  EXPECT_EQ(cap.take(), "(TABLE_File_Load) Table 100 not found (actual table is 101)!\n");
  // A section with records must be skipped explicitly.
  EXPECT_EQ(TABLE_File_Skip(f, d101), 1);
  l = load(&session, f, d100, 12);
  EXPECT_EQ(l.rows.size(), 2u);
  EXPECT_EQ(cap.take(), "");
  EXPECT_EQ(TABLE_File_Skip(f, d100), 0);
  EXPECT_EQ(cap.take(), "(TABLE_File_Skip) Unexpected end of file!\n");

  // Loading 100 while 101 with records comes first reads into the records.
  File again("two.tbl");
  ASSERT_EQ(TABLE_File_Skip(again, d101), 1);
  // The 100 section's header is passed over, then its records are taken for
  // the next header.
  EXPECT_EQ(TABLE_File_Skip(again, d101), 0);
  EXPECT_EQ(cap.take(), "(TABLE_File_Skip) Table 101 not found (actual table 100)!\n"
                        "(TABLE_File_Skip) Syntax error in definition 'TBL,SIZE'!\n");
}

TEST_F(TableFile, BadDefinitionsAndDamagedFilesFailWithTheirMessages) {
  Capture cap;
  const std::pair<const char *, const char *> bad_saves[] = {
      {"7,20", "No attributes!"},
      {"7", "Syntax error in definition 'TBL,SIZE'!"},
      {"7,20|A,11,9", "Syntax error 'NAME,TYP,SIZE,IDX'!"}};
  for (auto [def, message] : bad_saves) {
    EXPECT_EQ(save(&session, "x.tbl", def, {}), 0);
    EXPECT_EQ(cap.take(), std::string("(TABLE_File_Save) ") + message + "\n");
  }
  EXPECT_EQ(save(&session, "x.tbl", "7,0|A,11,9,4", {record(4)}), 1);
  EXPECT_EQ(cap.take(), "(TABLE_File_Save) Warning: Struct not initialized (size 0)???\n");
  EXPECT_EQ(save(&session, "/dev/full", "7,20|A,11,9,4", {record(20)}), 0); // a full disk
  EXPECT_EQ(cap.take(), "(TABLE_File_Save) Error writing file!\n");
  std::filesystem::remove("x.tbl");

  const char *def = "7,20|A,11,9,4";
  std::string good = std::string("00002,7,20|A,11,9,4") + '\0' + std::string(40, 'x');
  std::string many = "00000,7,20";
  for (int i = 0; i < 501; ++i) many += "|A" + std::to_string(i) + ",11,2,4";
  // Dates: a valid one, one that nothing filled (all bytes zero) and a
  // damaged one in the third record.
  const char *dates = "7,20|D,12,4,4";
  std::string date_records = std::string(4, '\0') + "\xd3\x07\x07\x0c" + std::string(12, '\0') +
                             std::string(20, '\0') + std::string(4, '\0') + "\xff\xff\x0d\x28" +
                             std::string(12, '\0');
  // Header numbers that would make the load allocate or read what the file
  // does not hold, or read values from outside a record.
  auto section = [](const std::string &head, size_t bytes) {
    return head + '\0' + std::string(bytes, 'x');
  };
  // Where `skip` is given, passing over the section fails with that message.
  const struct {
    std::string bytes;
    const char *def, *message, *skip = nullptr;
  } damaged[] = {
      {section("2000000000,7,20|A,11,9,4", 40), def,
       "Damaged header: record count 2000000000 (max = 99999)!"},
      {section("-0001,7,20|A,11,9,4", 40), def, "Damaged header: record count -1 (max = 99999)!"},
      {section("00001,7,2000000000|A,11,9,4", 40), def,
       "Damaged header: record size 2000000000 (1 to 10000)!"},
      {section("99999,7,10000|A,11,9,4", 120000), def, "Error reading file!",
       "Unexpected end of file!"},
      {section("00002,7,20|A,11,9,-4", 40), def,
       "Damaged header: attribute 'A' (position -4, size 9) lies outside the record of 20 bytes!"},
      {section("00002,7,20|A,11,9,12", 40), def,
       "Damaged header: attribute 'A' (position 12, size 9) lies outside the record of 20 bytes!"},
      {section("00002,7,20|A,99,9,4", 40), def,
       "Damaged header: attribute 'A' has the unknown type 99!"},
      {"00003," + std::string(dates) + '\0' + date_records, dates,
       "Record 3: attribute 'D' holds no valid date (year -1, month 13, day 40)!"},
      {good.substr(0, 10), def, "Unexpected end of file!"},
      {"00001,7\xff" + good.substr(8), def, "Unexpected end of file!"},
      {good.substr(0, good.size() - 1), def, "Error reading file!"},
      {std::string("00001,x") + '\0', def, "Syntax error in definition 'TBL,SIZE'!"},
      {std::string("00001,7,20|A,11") + '\0', def, "Syntax error 'NAME,TYP,SIZE,IDX'!"},
      {good, "7,20|A,11,9,4|B,11", "Syntax error 'NAME,TYP,SIZE,IDX'!"},
      {many + '\0', def, "Too many attribs (max = 500!"},
      {std::string(10001, '1'), def, "Definition too long (max = 10000)!",
       "Definition too long (max = 10000)!"},
  };
  for (const auto &k : damaged) {
    write_file("d.tbl", k.bytes);
    Loaded l = load(&session, File("d.tbl"), k.def, 20);
    EXPECT_EQ(l.ok, 0);
    EXPECT_TRUE(l.rows.empty()) << "nothing stored from a damaged file";
    EXPECT_EQ(cap.take(), std::string("(TABLE_File_Load) ") + k.message + "\n");
    if (!k.skip) continue;
    EXPECT_EQ(TABLE_File_Skip(File("d.tbl"), k.def), 0);
    EXPECT_EQ(cap.take(), std::string("(TABLE_File_Skip) ") + k.skip + "\n");
  }

  // A refused insert ends the load.
  write_file("d.tbl", good);
  int calls = 0;
  EXPECT_EQ(TABLE_File_Load(
                &session, File("d.tbl"), def, [](void *) {},
                [&](void *, DBSESSION *) { return ++calls < 1 ? 1 : 0; }),
            0);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(cap.take(), "(TABLE_File_Load) Error in table-insert!\n");
}

TEST(TableAttrib, TypesAndValuesByPosition) {
  const char *def = "7,20|Name,11,9,4|Menge,2,2,13|Bad,x";
  Capture cap;
  int size = 0;
  EXPECT_EQ(Get_TABLE_Attrib_Type(def, 0, &size), DT_STRING);
  EXPECT_EQ(size, 8);
  EXPECT_EQ(Get_TABLE_Attrib_Type(def, 1, &size), DT_SHORT);
  EXPECT_EQ(size, 1);
  EXPECT_EQ(Get_TABLE_Attrib_Type(def, 2, &size), -1);
  EXPECT_EQ(cap.take(), "(Get_TABLE_Attrib_Type) Syntax error 'NAME,TYP,SIZE,IDX'!\n");
  EXPECT_EQ(Get_TABLE_Attrib_Type(def, 3, &size), 0);

  Rec r = record(20);
  int16_t m = 5;
  EXPECT_EQ(Set_TABLE_Attrib_Value(def, 1, r.data(), &m), 1);
  EXPECT_EQ(r[13], 5);
  EXPECT_EQ(Set_TABLE_Attrib_Value(def, 0, r.data(), "Kunde\0\0\0"), 1);
  EXPECT_EQ(text_at(r.data(), 4), "Kunde");
  EXPECT_EQ(Set_TABLE_Attrib_Value(def, 2, r.data(), &m), 0);
  EXPECT_EQ(cap.take(), "(Set_TABLE_Attrib_Value) Syntax error 'NAME,TYP,SIZE,IDX'!\n");
  EXPECT_EQ(Set_TABLE_Attrib_Value(def, 5, r.data(), &m), 0);
  EXPECT_EQ(Set_TABLE_Attrib_Value("7,10|Over,11,9,4", 0, r.data(), "x"), 0);
}

} // namespace
