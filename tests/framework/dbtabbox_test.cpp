// Managed and database tabboxes: field parsing and padding, uniqueness, the
// record sort with its row limit, the loaders and record hooks (with a
// record-producing table that needs no server), and the fatal programming
// errors.
#include "base/valstr.h"
#include "db/access/session.h"
#include "framework/tabset.h"
#include "tests/framework/framework_testutil.h"

namespace {

using namespace zqtest;

struct Rec {
  int32_t size;
  int id;
  char name[32];
};

Rec *make(int id, const char *name) {
  Rec *r = static_cast<Rec *>(std::calloc(1, sizeof(Rec)));
  *r = {sizeof(Rec), id, {}};
  std::snprintf(r->name, sizeof r->name, "%s", name);
  return r;
}
void *new_rec() { return make(0, ""); }

int id_of(const void *r) { return static_cast<const Rec *>(r)->id; }

const char *title_nr_name(FL_OBJECT *) { return "Nr,Name"; }

// A table of records for the loader: first/next walk the array.
struct Table {
  std::vector<Rec> rows;
  size_t pos = 0;
};
int first_rec(void *t, DBSESSION *) {
  Table *tab = static_cast<Table *>(t);
  tab->pos = 0;
  return tab->rows.empty() ? 0 : 1;
}
int next_rec(void *t, DBSESSION *, void *record) {
  Table *tab = static_cast<Table *>(t);
  if (tab->pos >= tab->rows.size()) return 0;
  std::memcpy(record, &tab->rows[tab->pos++], sizeof(Rec));
  return 1;
}
// The line text of a record; notes the decimal places in force while it runs.
std::vector<int> g_decimals;
const char *rec_line(DBSESSION *, void *record, int) {
  static std::string text;
  const Rec *r = static_cast<const Rec *>(record);
  g_decimals.push_back(Get_ValueDecimals());
  text = std::to_string(r->id) + ",\"" + r->name + "\"";
  return text.c_str();
}

class DbTabbox : public FormTest {
protected:
  void SetUp() override {
    FormTest::SetUp();
    g_decimals.clear();
    myfl_install_tabbox_settings();
    tb_ = tabbox_form(form_, 2, 400, 240);
    db_reset_depth_for_test();
    session_.disabled = 1; // every statement succeeds without rows
  }
  std::string field(int line, int col) {
    fl_layout_tabbox(tb_);
    return mytabs_get_field(tb_, fl_get_tabbox_full_line(tb_, line), col);
  }
  // Registers tb_ as a database tabbox of Nr and Name records.
  void init_db(const char *name = "Liste", MYFL_DB_HOOK load = nullptr, MYFL_DB_HOOK save = nullptr,
               MYFL_FILTER_FUNC filter = nullptr, MYFL_TABLE_NEW table_new = new_rec) {
    myfl_init_db_tabbox(form_, tb_, name, title_nr_name, table_new, load, save, filter, nullptr);
  }
  std::vector<int> ids() {
    std::vector<int> v;
    for (int i = 1; i <= myfl_get_tabbox_items(tb_); ++i)
      v.push_back(id_of(myfl_get_tabbox_item_info(tb_, i)));
    return v;
  }
  DBSESSION session_;
};

TEST_F(DbTabbox, FieldsAreSplitAtCommasOutsideQuotes) {
  std::vector<std::string> f;
  EXPECT_EQ(myfl_split_fields("\"Müller, Hans\",Köln", &f, "t"), 2);
  EXPECT_EQ(f, (std::vector<std::string>{"Müller, Hans", "Köln"}));
  // An escaped quote does not end the quoted part; the field shows the
  // escaped character alone.
  EXPECT_EQ(myfl_split_fields("\"a\\\"b\\\\,c\",d", &f, "t"), 2);
  EXPECT_EQ(f[0], "a\"b\\,c");
  EXPECT_EQ(myfl_split_fields("", &f, "t"), 1);
  EXPECT_EQ(myfl_split_fields("x,", &f, "t"), 2);
  // The field buffer holds 9999 characters.
  EXPECT_EQ(myfl_split_fields(std::string(12000, 'z').c_str(), &f, "t"), 1);
  EXPECT_EQ(f[0].size(), 9999u);
}

TEST_F(DbTabbox, LinesArePaddedToTheWidestField) {
  ASSERT_EQ(myfl_init_tabbox(form_, tb_, "Liste", title_nr_name, nullptr), 1);
  EXPECT_EQ(std::string(fl_get_tabbox_full_title(tb_)), "Nr | Name");
  for (const char *line : {"1,Anna", "22,\"Bernhard, B.\"", "3"})
    myfl_addto_tabbox_line(tb_, line, nullptr);
  EXPECT_THAT(messages(),
              testing::HasSubstr("(addto_tabbox_line) Line is invalid (only 1 of 2 cols)\n"));
  EXPECT_EQ(std::string(fl_get_tabbox_full_title(tb_)), "Nr | Name        ");
  EXPECT_EQ(std::string(fl_get_tabbox_full_line(tb_, 1)), "1  | Anna        ");
  EXPECT_EQ(field(2, 2), "Bernhard, B.");
  EXPECT_EQ(field(3, 2), "");
  // Numeric columns are right-aligned.
  const int types[] = {3, 11};
  myfl_set_tabbox_data_def_types(tb_, 2, types);
  myfl_draw_tabbox(tb_);
  EXPECT_EQ(std::string(fl_get_tabbox_full_line(tb_, 1)), " 1 | Anna        ");
  // Floating-point columns take the tabbox's decimal places; "-" stays.
  const int real[] = {9, 11};
  myfl_set_tabbox_data_def_types(tb_, 2, real);
  fl_set_tabbox_comma(tb_, 2);
  for (const char *line : {"3.14159,Pi", "-,kein Wert"}) myfl_addto_tabbox_line(tb_, line, nullptr);
  EXPECT_EQ(field(4, 1), "3.14");
  EXPECT_EQ(field(5, 1), "-");
  myfl_delete_tabbox_line(tb_); // nothing selected: nothing deleted
  EXPECT_EQ(myfl_get_tabbox_items(tb_), 5);

  EXPECT_EQ(myfl_get_tabbox_attrib_info(tb_, 6, 1), nullptr);
  EXPECT_THAT(messages(), testing::HasSubstr("(myfl_get_tabbox_attrib_info) Invalid index (6)\n"));
  // Attributes are found by title, or by database name once those are set.
  EXPECT_EQ(myfl_get_tabbox_title_attrib_idx(tb_, "Name"), 2);
  myfl_set_tabbox_kz_dbnames(tb_, 1, "KD_NR,KD_NAME");
  EXPECT_EQ(myfl_get_tabbox_attrib_idx(tb_, "KD_NAME"), 2);
  EXPECT_EQ(myfl_get_tabbox_attrib_idx(tb_, "Nr"), 1);
}

TEST_F(DbTabbox, AnEqualRecordIsNotAddedTwice) {
  myfl_init_tabbox(form_, tb_, "Liste", title_nr_name, nullptr);
  myfl_set_tabbox_compfunc(tb_, [](const void *a, const void *b) { return id_of(a) - id_of(b); });
  for (int i = 1; i <= 3; ++i)
    ASSERT_EQ(myfl_addto_tabbox_line(tb_, (std::to_string(i) + ",x").c_str(), make(i, "x")), 1);
  Rec *dup = make(2, "y");
  EXPECT_EQ(myfl_addto_tabbox_line(tb_, "2,y", dup), 0);
  std::free(dup);
  ASSERT_EQ(fl_seam_shown().size(), 1u);
  EXPECT_EQ(fl_seam_shown()[0].text, "Eintrag bereits vorhanden");
  EXPECT_EQ(myfl_get_tabbox_items(tb_), 3);
  // Uniqueness against all lines but the record itself.
  Rec probe = *static_cast<Rec *>(myfl_get_tabbox_item_info(tb_, 3));
  EXPECT_EQ(myfl_test_tabbox_unique(tb_, myfl_get_tabbox_item_info(tb_, 3), &probe), 1);
  EXPECT_EQ(myfl_test_tabbox_unique(tb_, myfl_get_tabbox_item_info(tb_, 2), &probe), 0);
  // The insert test skips the first line's record; no record is always new.
  EXPECT_EQ(myfl_test_tabbox_insert(tb_, myfl_get_tabbox_item_info(tb_, 1)), 1);
  EXPECT_EQ(myfl_test_tabbox_insert(tb_, nullptr), 1);
  // Replacing the selected line: the new record is a copy.
  fl_select_tabbox_line(tb_, 2);
  EXPECT_FATAL("\\(myfl_replace_tabbox_line\\) TABLE_New\\(\\) not defined",
               myfl_replace_tabbox_line(tb_, "9,z", &probe));
  // Given up, the tabbox keeps its texts, also those of lines not read yet.
  myfl_draw_tabbox(tb_);
  myfl_free_tabbox(tb_);
  EXPECT_EQ(field(3, 1), "3");
  init_db();
  myfl_addto_tabbox_line(tb_, "1,a", make(1, "a"));
  myfl_addto_tabbox_line(tb_, "2,b", make(2, "b"));
  fl_select_tabbox_line(tb_, 2);
  Rec repl = {sizeof(Rec), 7, "neu"};
  EXPECT_EQ(myfl_replace_tabbox_line(tb_, "7,neu", &repl), 1);
  EXPECT_EQ(field(2, 2), "neu");
  EXPECT_NE(myfl_get_tabbox(tb_), &repl);
  EXPECT_EQ(id_of(myfl_get_tabbox(tb_)), 7);
  EXPECT_EQ(myfl_delete_tabbox_line(tb_), 1);
  EXPECT_EQ(ids(), (V{1}));
}

TEST_F(DbTabbox, RecordSortKeepsItsRowLimit) {
  myfl_init_tabbox(form_, tb_, "Liste", title_nr_name, nullptr);
  EXPECT_FATAL("\\(_Sort_tabbox\\) Sortfunc not defined", _Sort_tabbox(tb_));
  // Ascending by id: a negative result exchanges the two entries.
  myfl_set_tabbox_sortfunc(tb_, [](const void *a, const void *b) { return id_of(b) - id_of(a); });
  for (int id : {9, 3, 1, 2})
    myfl_addto_tabbox_line(tb_, (std::to_string(id) + ",n").c_str(), make(id, "n"));
  EXPECT_EQ(myfl_set_tabbox_sort(tb_), 1);
  // The first entry is kept aside and ends up last.
  EXPECT_EQ(ids(), (V{1, 2, 3, 9}));
  EXPECT_EQ(field(1, 1), "1") << "the lines follow their records";

  myfl_free_tabbox_data(tb_);
  for (int i = 0; i < 502; ++i)
    myfl_addto_tabbox_line(tb_, (std::to_string(600 - i) + ",n").c_str(), make(600 - i, "n"));
  messages().clear();
  EXPECT_EQ(_Sort_tabbox(tb_), 0);
  EXPECT_EQ(_Sort_tabbox(tb_), 0);
  EXPECT_EQ(messages(), "(_Sort_tabbox) Too many rows (max = 500)\n");
  EXPECT_EQ(id_of(myfl_get_tabbox_item_info(tb_, 1)), 600);
  EXPECT_EQ(id_of(myfl_get_tabbox_item_info(tb_, 502)), 99);
}

// Records made from a line's fields: counts the calls, keeps the first field
// as the name (a rounded value would show there).
int g_made = 0;
void *record_from(const std::vector<std::string_view> &f) {
  ++g_made;
  std::string first(f.at(0));
  return make(std::stoi(first), first.c_str());
}

TEST_F(DbTabbox, LinesWithoutRecordsGetThemFromTheirFieldsWhenAsked) {
  init_db();
  myfl_set_tabbox_recordfunc(tb_, record_from);
  auto lines = [](std::vector<std::vector<std::string>> rows) {
    MYFL_TABBOX_LINES out;
    for (const auto &row : rows) {
      out.begin_line();
      for (const std::string &f : row) out.add_field(f);
    }
    return out;
  };
  g_made = 0;
  myfl_load_tabbox_lines(tb_, rec_line, lines({{"3", "c"}, {"1", "a"}, {"2", "b"}}));
  EXPECT_EQ(g_made, 0) << "no record before one is asked for";
  EXPECT_EQ(field(2, 2), "a");
  fl_select_tabbox_line(tb_, 2);
  EXPECT_EQ(id_of(myfl_get_tabbox(tb_)), 1);
  EXPECT_EQ(myfl_get_tabbox(tb_), myfl_get_tabbox_item_info(tb_, 2)) << "made once, then kept";
  EXPECT_EQ(g_made, 1);
  // The record sort walks every record; the tabbox shows the lines in their
  // old order until it is drawn again.
  myfl_set_tabbox_sortfunc(tb_, [](const void *a, const void *b) { return id_of(b) - id_of(a); });
  EXPECT_EQ(_Sort_tabbox(tb_), 1);
  EXPECT_EQ(ids(), (V{1, 2, 3}));
  EXPECT_EQ(g_made, 3);
  EXPECT_EQ(field(3, 2), "b");
  myfl_draw_tabbox(tb_);
  EXPECT_EQ(field(3, 2), "c");

  // Decimal places change the fields: the records are made from the values
  // as they came, before the rounding.
  const int real[] = {9, 11};
  myfl_set_tabbox_data_def_types(tb_, 2, real);
  fl_set_tabbox_comma(tb_, 2);
  myfl_load_tabbox_lines(tb_, rec_line, lines({{"7.5", "x"}}));
  EXPECT_EQ(field(1, 1), "7.50");
  EXPECT_STREQ(static_cast<Rec *>(myfl_get_tabbox_item_info(tb_, 1))->name, "7.5");
}

TEST_F(DbTabbox, LoaderFillsFromTheTableInsideOneLevel) {
  init_db("Kunden", nullptr, nullptr, [](const void *r) { return id_of(r) != 13 ? 1 : 0; });
  // No table: a warning, an empty tabbox that is drawn all the same.
  EXPECT_EQ(myfl_load_db_tabbox(&session_, tb_, rec_line, first_rec, next_rec, nullptr), 1);
  EXPECT_EQ(messages(), "(myfl_load_db_tabbox) Warning: pTABLE not initialized\n");
  EXPECT_EQ(fl_get_tabbox_maxline(tb_), 0);
  EXPECT_EQ(std::string(fl_get_tabbox_full_title(tb_)), "Nr | Name");
  EXPECT_EQ(db_depth(), 0);

  Table empty;
  messages().clear();
  EXPECT_EQ(myfl_load_db_tabbox(&session_, tb_, rec_line, first_rec, next_rec, &empty), 0);
  EXPECT_EQ(messages(), "(myfl_load_db_tabbox) Warning: Table is empty\n");
  EXPECT_EQ(db_depth(), 0);

  // The filter drops record 13; the lines are made with the decimal places
  // of the tabbox, which are reset afterwards.
  Table t;
  t.rows = {{sizeof(Rec), 4, "Vier, Anna"}, {sizeof(Rec), 13, "Dreizehn"}, {sizeof(Rec), 5, "F"}};
  fl_set_tabbox_comma(tb_, 2);
  EXPECT_EQ(myfl_load_db_tabbox(&session_, tb_, rec_line, first_rec, next_rec, &t), 1);
  EXPECT_EQ(db_depth(), 0);
  EXPECT_EQ(Get_ValueDecimals(), -1);
  EXPECT_EQ(g_decimals, (V{2, 2}));
  EXPECT_EQ(ids(), (V{4, 5}));
  EXPECT_EQ(field(1, 2), "Vier, Anna");
  // The lines own copies of the loader's record.
  EXPECT_NE(myfl_get_tabbox_item_info(tb_, 1), myfl_get_tabbox_item_info(tb_, 2));

  // The record lists: replaced, or appended to.
  Rec a = {sizeof(Rec), 21, "a"}, b = {sizeof(Rec), 22, "b"};
  void *list[] = {&a, &b};
  EXPECT_EQ(myfl_load_multiple_tabbox_1(&session_, tb_, rec_line, list, 2), 1);
  EXPECT_EQ(ids(), (V{4, 5, 21, 22}));
  EXPECT_EQ(myfl_load_single_tabbox(&session_, tb_, rec_line, &b), 1);
  EXPECT_EQ(ids(), (V{22}));
  // Whichever loader adds a line, a bad line is reported by the line adder.
  Rec odd = {sizeof(Rec), 23, "c\",\"d"};
  void *odd_list[] = {&odd};
  messages().clear();
  myfl_load_multiple_tabbox_1(&session_, tb_, rec_line, odd_list, 1);
  EXPECT_EQ(messages(), "(addto_tabbox_line) Line is invalid (only 3 of 2 cols)\n");
  myfl_load_single_tabbox(&session_, tb_, rec_line, &b);
  fl_select_tabbox_line(tb_, 1);
  std::vector<void *> selected;
  EXPECT_EQ(myfl_get_multiple_tabbox(tb_, &selected), 1);
  EXPECT_EQ(selected, (std::vector<void *>{myfl_get_tabbox_item_info(tb_, 1)}));

  // State: the selected record is found again after a reload.
  EXPECT_EQ(myfl_restore_tabbox_state(tb_), 0);
  EXPECT_THAT(messages(), testing::HasSubstr("(myfl_restore_tabbox_state) Data not defined\n"));
  myfl_set_tabbox_compfunc(tb_, [](const void *x, const void *y) { return id_of(x) - id_of(y); });
  EXPECT_EQ(myfl_load_multiple_tabbox(&session_, tb_, rec_line, list, 2), 1);
  fl_select_tabbox_line(tb_, 2);
  myfl_save_tabbox_state(tb_);
  void *rev[] = {&b, &a};
  myfl_load_multiple_tabbox(&session_, tb_, rec_line, rev, 2);
  fl_deselectall_tabbox(tb_);
  EXPECT_EQ(myfl_restore_tabbox_state(tb_), 1);
  EXPECT_EQ(fl_get_tabbox(tb_), 1);
  EXPECT_EQ(db_depth(), 0);
}

std::vector<std::pair<int, int>> g_hook_calls; // (record id, depth of the BEGIN stack)
int record_hook(DBSESSION *, void *record) {
  g_hook_calls.push_back({id_of(record), db_depth()});
  return id_of(record) != 99;
}

TEST_F(DbTabbox, DatabaseOperationsRunTheHooksInsideOneLevel) {
  g_hook_calls.clear();
  init_db("Kunden", record_hook, record_hook);
  myfl_set_tabbox_db_hooks(tb_, record_hook, record_hook);
  Rec a = {sizeof(Rec), 1, "a"}, b = {sizeof(Rec), 2, "b"};
  void *list[] = {&a, &b};
  myfl_load_multiple_tabbox(&session_, tb_, rec_line, list, 2);
  EXPECT_EQ(myfl_save_db_tabbox(&session_, tb_), 1);
  EXPECT_EQ(g_hook_calls, (std::vector<std::pair<int, int>>{{1, 1}, {2, 1}}));

  // Insert: the hook, then the line; a refused insert adds nothing.
  Rec c = {sizeof(Rec), 3, "c"}, bad = {sizeof(Rec), 99, "x"};
  EXPECT_EQ(myfl_insert_db_tabbox(&session_, tb_, nullptr, &c), 1);
  EXPECT_EQ(myfl_insert_db_tabbox(&session_, tb_, nullptr, &bad), 0);
  EXPECT_EQ(ids(), (V{1, 2, 3}));

  // Delete: the selected record's hook, then the line goes.
  fl_select_tabbox_line(tb_, 2);
  EXPECT_EQ(myfl_delete_db_tabbox(&session_, tb_), 1);
  EXPECT_EQ(ids(), (V{1, 3}));
  EXPECT_EQ(g_hook_calls.back(), (std::pair<int, int>{2, 1}));

  // Reloading one line: the load hook, then its text from the record.
  fl_select_tabbox_line(tb_, 2);
  static_cast<Rec *>(myfl_get_tabbox(tb_))->id = 33;
  EXPECT_EQ(myfl_load_tabbox_line(&session_, tb_), 1);
  EXPECT_EQ(field(2, 1), "33");
  static_cast<Rec *>(myfl_get_tabbox_item_info(tb_, 1))->id = 11;
  EXPECT_EQ(myfl_reload_tabbox(&session_, tb_), 1);
  EXPECT_EQ(field(1, 1), "11");
  EXPECT_EQ(db_depth(), 0);

  // Line 1 replaced through the data accessor, which copies into its record.
  myfl_set_tabbox_datafunc(tb_, [](void *dest, const void *src) {
    std::memcpy(static_cast<char *>(dest) + 4, static_cast<const char *>(src) + 4, sizeof(Rec) - 4);
  });
  void *first = myfl_get_tabbox_item_info(tb_, 1);
  Rec n = {sizeof(Rec), 7, "sieben"};
  EXPECT_EQ(myfl_replace_tabbox_line_idx_1(tb_, "7,sieben", &n), 1);
  EXPECT_EQ(myfl_get_tabbox_item_info(tb_, 1), first);
  EXPECT_EQ(id_of(first), 7);
  EXPECT_EQ(field(1, 2), "sieben");
  EXPECT_EQ(myfl_get_tabbox_item_info(tb_, 3), nullptr);
  EXPECT_THAT(messages(), testing::HasSubstr("(myfl_get_tabbox_item_info) Invalid index (3)\n"));
}

TEST_F(DbTabbox, ProgrammingErrorsEndTheProgram) {
  EXPECT_FATAL("\\(myfl_get_tabbox\\) Tabbox not defined", myfl_get_tabbox(tb_));
  EXPECT_FATAL("\\(addto_tabbox_line\\) Tabbox not defined", addto_tabbox_line(tb_, "x", nullptr));
  myfl_init_tabbox(form_, tb_, "Liste", title_nr_name, nullptr);
  EXPECT_FATAL("\\(init_tabbox\\) Tabbox already defined",
               myfl_init_tabbox(form_, tb_, "Liste", title_nr_name, nullptr));
  EXPECT_FATAL("\\(myfl_save_db_tabbox\\) Tabbox is no database tabbox",
               myfl_save_db_tabbox(&session_, tb_));
  EXPECT_FATAL("\\(myfl_replace_tabbox_line_idx_1\\) TABLE_Data not defined",
               myfl_replace_tabbox_line_idx_1(tb_, "1,a", nullptr));
  myfl_free_tabbox(tb_);
  Table t;
  t.rows = {{sizeof(Rec), 1, "x"}};
  init_db("Kunden", nullptr, nullptr, nullptr, nullptr);
  EXPECT_FATAL("\\(myfl_load_db_tabbox\\) TABLE_New\\(\\) not defined",
               myfl_load_db_tabbox(&session_, tb_, rec_line, first_rec, next_rec, &t));
}

} // namespace
