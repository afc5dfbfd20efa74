// The viewer's start-up, configuration of its forms, main loop and the ways
// it ends (see viewer.h).
#include "app/viewer.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/detail.h"
#include "app/doku.h"
#include "app/mainform.h"
#include "app/readonly.h"
#include "app/querystore.h"
#include "base/ini.h"
#include "base/msg.h"
#include "db/access/session.h"
#include "db/client/exec.h"
#include "forms/console.h"
#include "forms/dialogs.h"
#include "forms/mytabs.h"
#include "forms/process.h"
#include "framework/combo.h"
#include "framework/dbtabbox.h"
#include "framework/focus.h"
#include "framework/help.h"
#include "framework/place.h"
#include "framework/tabdialogs.h"

namespace {

// The main form's title: program, version, credit line and release date.
std::string main_title() {
  return std::string("Zentiq ") + ZQ_VERSION + " - Datenbank-Viewer für TAVRIN - Stand " +
         ZQ_RELEASE_DATE;
}

// Fills the database combo box from "SHOW DATABASES;" and preselects one
// (zentiq_choose_database).
void init_database_combo() {
  ZqApp &app = zentiq_app();
  ZqMainForm &m = app.main;
  if (!dbstatus(app.session)) {
    myfl_init_data_cmb(m.form, m.database, m.database_button, "TDSYS,TDSYS", 1);
    myfl_set_cmb_code(m.database, "TDSYS");
    return;
  }
  std::string list, chosen;
  DBRESULT *r = DBexec(app.session->connection, "SHOW DATABASES;");
  if (DBresult_status(r) == DBRES_TRANSPORT) {
    // The server went away at once: the lost-server box has been shown.
    db_transport_lost(app.session);
    DBclear(r);
    myfl_init_data_cmb(m.form, m.database, m.database_button, "TDSYS,TDSYS", 1);
    myfl_set_cmb_code(m.database, "TDSYS");
    return;
  }
  if (!r) {
    fl_show_error("Fehler beim Ändern der Datenbank!", DBerrormessage(app.session->connection), "");
  } else if (DBresult_status(r) != DBRES_TUPLES && DBresult_status(r) != DBRES_TUPLES2) {
    fl_show_error("Vorhandene Datenbanken konnten nicht ermittelt werden!", DBresult_error(r), "");
  } else {
    std::vector<std::string> names;
    for (int i = 0; i < DBntuples(r); ++i) {
      const char *v = DBgetvalue(r, i, 0);
      names.emplace_back(v ? v : "");
      if (!list.empty()) list += "|";
      list += names.back() + "," + names.back();
    }
    std::string given = app.database_given ? app.database_name : "";
    for (char &c : given) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    chosen = zentiq_choose_database(names, given, zentiq_last_database());
  }
  DBclear(r);
  myfl_init_data_cmb(m.form, m.database, m.database_button, list.c_str(), 1);
  if (!chosen.empty()) myfl_set_cmb_code(m.database, chosen.c_str());
}

constexpr const char *kLastDatabaseKey = "ZTQ_DB";

// What the session layer prints while the session is opened, for the box
// that says why it could not be.
std::string g_connect_text;
void capture_connect_text(const char *text) {
  g_connect_text += text ? text : "";
  zentiq_print(text);
}

void tabbox_fatal(int status) { zentiq_fatal(status); }

bool g_store_loaded = false; // the store holds what the file held

// A fatal stop keeps the marked queries of the session, as the exit does.
void save_at_fatal() {
  if (g_store_loaded && !zentiq_save_queries())
    msg_print("Fehler beim Schreiben der SQL-Abfragen in Datei '%s'!\n", ZQ_QUERY_FILE);
}

// The viewer survives a lost server: the session is marked lost, its
// history is saved and the user told; the next action opens the session
// again (the session layer's dbbegin) and chooses the database of the
// combo box again. Set while the loss has been told and no server came back.
bool g_loss_told = false;

void on_session_lost(DBSESSION *) {
  if (g_loss_told) {
    fl_show_error("Es läuft kein TAVRIN-Server.",
                  "Starten Sie einen mit 'tavrind --data <Datenordner>' oder starten Sie "
                  "Zentiq mit './run.sh' aus dem Programmordner, das den Server mitstartet.",
                  "Die nächste Aktion versucht es erneut.");
    return;
  }
  g_loss_told = true;
  bool saved = !g_store_loaded || zentiq_save_queries();
  std::string kept = saved ? "die Abfragen sind gesichert."
                           : std::string("die Abfragen konnten nicht in Datei '") +
                                 ZQ_QUERY_FILE + "' gesichert werden!";
  fl_show_error(("Die Verbindung zum TAVRIN-Server ist verloren; " + kept).c_str(),
                "Eine offene Transaktion ist verloren. Die nächste Aktion verbindet neu,",
                "sobald wieder ein TAVRIN-Server läuft.");
}

void on_session_reopened(DBSESSION *) {
  g_loss_told = false;
  ZqMainForm &m = zentiq_app().main;
  // The new connection starts on the database of the connection string:
  // the one chosen in the combo box is chosen again.
  if (m.database) zentiq_set_database(m.database, 0);
}

} // namespace

ZqApp &zentiq_app() {
  static ZqApp app;
  return app;
}

std::string zentiq_choose_database(const std::vector<std::string> &listed, const std::string &given,
                                   const std::string &last) {
  auto has = [&](const std::string &name) {
    return !name.empty() && std::find(listed.begin(), listed.end(), name) != listed.end();
  };
  // The database of "-db" holds the session already: the switch after the
  // filling must not move it elsewhere.
  if (has(given)) return given;
  if (given.empty() && has(last)) return last;
  for (const char *name : {"DEMO", "TDSYS"})
    if (has(name)) return name;
  return listed.empty() ? std::string() : listed.back();
}

std::string zentiq_last_database() {
  const char *line = INI_GetLine(myfl_get_appl_name(), kLastDatabaseKey);
  if (!line) return "";
  std::string v = line;
  size_t close = v.find(']');
  v = close == std::string::npos ? "" : v.substr(close + 1);
  while (!v.empty() && (v.back() == '\n' || v.back() == '\r' || v.back() == ' ')) v.pop_back();
  return v;
}

void zentiq_remember_database(const char *code) {
  if (!code || !*code || zentiq_last_database() == code) return;
  std::string line = std::string("[") + kLastDatabaseKey + "]" + code + "\n";
  INI_PutLine(myfl_get_appl_name(), kLastDatabaseKey, line.c_str());
}

int zentiq_open_session() {
  ZqApp &app = zentiq_app();
  // Without "-db" the session opens on the system database, which every
  // server has; the database combo box then switches to the one to show.
  const char *name = app.database_given ? app.database_name : "TDSYS";
  g_connect_text.clear();
  MsgHandler before = msg_set_handler(capture_connect_text);
  int ok = DB_Init(&app.session, name);
  msg_set_handler(before);
  if (ok) return 1;
  std::string why = g_connect_text;
  while (!why.empty() && why.back() == '\n') why.pop_back();
  if (why.find("Tavrin database not found!") != std::string::npos)
    fl_show_error("Es läuft kein TAVRIN-Server.",
                  "Starten Sie einen mit 'tavrind --data <Datenordner>' oder starten Sie "
                  "Zentiq mit './run.sh' aus dem Programmordner, das den Server mitstartet.",
                  why.c_str());
  else
    fl_show_error(
        (std::string("Die Datenbank '") + name + "' konnte nicht geöffnet werden.").c_str(),
        why.c_str(), "");
  return 0;
}

const char *zentiq_title(FL_OBJECT *) {
  const std::string &name = zentiq_app().current_query_name;
  return name.empty() ? "Ergebnis Select-Abfrage" : name.c_str();
}

void *zentiq_new_record() {
  auto *rec = static_cast<ZqRecord *>(std::calloc(1, sizeof(ZqRecord)));
  if (!rec) msg_fatal("(zentiq_new_record) Out of memory!\n");
  rec->size = ZQ_RECORD_SIZE;
  rec->selection = -1;
  return rec;
}

void *zentiq_make_record(const std::string &text) {
  constexpr size_t header = offsetof(ZqRecord, text);
  size_t n = text.size();
  auto *rec = static_cast<ZqRecord *>(std::malloc(header + n + 1));
  if (!rec) msg_fatal("(zentiq_make_record) Out of memory!\n");
  rec->size = static_cast<int>(header + n + 1);
  rec->selection = -1;
  std::memcpy(rec->text, text.data(), n);
  rec->text[n] = '\0';
  return rec;
}

int zentiq_accept_record(const void *) { return 1; }

void zentiq_print(const char *text) { fl_console_print(text); }

void zentiq_fatal(int status) {
  msg_print("Error occurred (data is saved)! Please restart the application!\n");
  // Status 1 saves the store in the clean-ups of the common fatal stop.
  if (status != 1) save_at_fatal();
  // Status 1 is the common fatal stop, whose clean-ups show the termination
  // warning; any other status shows it here.
  if (status == 1) msg_exit_fatal();
  fl_show_termination_warning();
  std::exit(status);
}

void zentiq_build_forms() {
  ZqApp &app = zentiq_app();
  ZqMainForm &m = app.main;
  ZqDetailForm &d = app.detail;
  myfl_set_appl_name("zentiq");
  myfl_set_tabbox_fatal(tabbox_fatal);
  myfl_set_form_name(m.form, -1, (main_title() + "\n").c_str());
  myfl_init_helpdialog(m.form, m.help, "ZTQ_HLP");
  fl_set_object_shortcut(m.sel_run, "^u^U", 1);
  fl_set_object_shortcut(m.sql_run, "^S^s", 1);
  fl_set_object_shortcut(m.sel_add, "^A^a", 1);
  fl_set_object_shortcut(m.sql_add, "^d^d", 1);
  myfl_init_db_tabbox_no_ini(m.form, m.result, "ZTQ", zentiq_title, zentiq_new_record, nullptr,
                             nullptr, zentiq_accept_record, zentiq_open_detail);
  myfl_set_main_tabbox(m.result);
  myfl_define_focus_first(m.form, m.table);
  myfl_define_ctrl_tabbox(m.form, m.result);
  // No maximum lengths on the inputs: an input with one cuts pasted text
  // without a word, and a cut statement may lose its WHERE. Statements too
  // long for the session layer are refused with their length instead.
  for (FL_OBJECT *in : {m.table, m.attributes, m.where, m.sql})
    fl_set_object_lstyle(in, FL_FIXED_STYLE);
  for (FL_OBJECT *ind : {m.sel_saved, m.sql_saved}) {
    fl_set_button(ind, 0);
    fl_deactivate_object(ind);
  }
  init_database_combo();
  myfl_set_cmb_callback(m.database, zentiq_set_database, 0);
  zentiq_set_database(m.database, 0);

  myfl_set_form_name(d.form, -1, "Zentiq-Detail");
  myfl_init_helpdialog(d.form, d.help, "DZTQ_HLP");
  fl_set_object_shortcut(d.del, "^L^l", 1);
  fl_set_object_shortcut(d.update, "^U^u", 1);
  myfl_init_db_tabbox_no_ini(d.form, d.tabbox, "DZTQ", zentiq_title, zentiq_new_record, nullptr,
                             nullptr, zentiq_accept_record, zentiq_edit_value);
  myfl_define_ctrl_tabbox(d.form, d.tabbox);
  // The value input has no maximum length either (see above); the update
  // refuses values of 4000 characters or more.
  fl_set_input_return(d.value, FL_RETURN_ALWAYS);

  myfl_set_form_atclose(m.form, zentiq_main_atclose, nullptr);
  myfl_set_form_atclose(d.form, zentiq_detail_atclose, nullptr);
}

int zentiq_main_atclose(FL_FORM *, void *) {
  if (fl_show_question("Soll Zentiq beendet werden?", "", "", 2, "Ja", "Nein", "", 3) != 1)
    return -1;
  // A failed save leaves the old file in place; the user decides whether the
  // marked queries of this session may be lost.
  if (!zentiq_save_queries()) {
    std::string text =
        std::string("Fehler beim Schreiben der SQL-Abfragen in Datei '") + ZQ_QUERY_FILE + "'!";
    if (fl_show_question(text.c_str(), "Die gespeicherten Abfragen gehen verloren.",
                         "Soll Zentiq trotzdem beendet werden?", 2, "Ja", "Nein", "", 2) != 1)
      return -1;
  }
  ZqApp &app = zentiq_app();
  fl_clear_program_running();
  myfl_hide_form(app.main.form);
  dbclose(app.session);
  app.session = nullptr;
  fl_exit_toolkit();
  std::exit(0);
}

int zentiq_detail_atclose(FL_FORM *, void *) {
  ZqApp &app = zentiq_app();
  myfl_hide_form(app.detail.form);
  fl_activate_form(app.main.form);
  fl_raise_form(app.main.form);
  return -1;
}

int zentiq_start(int argc, char **argv) {
  ZqApp &app = zentiq_app();
  msg_set_handler(zentiq_print);
  if (!fl_init_toolkit("zentiq", argv, 101)) return 0;
  // Every fatal stop from here on tells the user before the program ends.
  msg_at_fatal(fl_show_termination_warning);

  myfl_set_appl_name("zentiq");
  std::strcpy(app.database_name, "-");
  ARGV_GetDB_Name(argv, argc, app.database_name);
  app.database_given = app.database_name[0] != '\0';
  zentiq_ro_init(argc, argv);

  zentiq_open_store();
  // From here on a fatal stop saves the store (before, it would write an
  // empty store over the file).
  g_store_loaded = true;
  msg_at_fatal(save_at_fatal);

  myfl_create_tabbox_dialogs();
  if (!zentiq_open_session()) {
    msg_remove_at_fatal(save_at_fatal);
    g_store_loaded = false;
    return 0;
  }

  // From here on a lost server does not end the viewer (see on_session_lost).
  DbSurvival survival;
  survival.on_lost = on_session_lost;
  survival.on_reopened = on_session_reopened;
  db_survive_transport(survival);

  zentiq_create_main_form();
  zentiq_create_detail_form();
  app.current_query_name.clear();
  zentiq_build_forms();
  return 1;
}

int zentiq_main(int argc, char **argv) {
  ZqApp &app = zentiq_app();
  if (!zentiq_start(argc, argv)) return 1;

  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-doku") != 0) continue;
    if (zentiq_write_manual()) {
      msg_print("Die Dokumentation wurde erfolgreich generiert!\n");
      return 0;
    }
    msg_print("Beim Erzeugen der Dokumentation ist ein Fehler aufgetreten!\n");
    return 1;
  }

  myfl_show_form(app.main.form, zentiq_ro_title(main_title()).c_str());
  fl_iconify_console();
  fl_raise_form(app.main.form);
  fl_run_forms();

  dbclose(app.session);
  app.session = nullptr;
  fl_exit_toolkit();
  msg_remove_at_fatal(save_at_fatal);
  msg_remove_at_fatal(fl_show_termination_warning);
  fl_show_termination_warning();
  msg_set_handler(nullptr);
  return 0;
}
