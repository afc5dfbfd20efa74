// Typed input fields (see fields.h).
#include "framework/fields.h"

#include "base/data.h"
#include "base/msg.h"
#include "forms/dialogs.h"
#include "framework/focus.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

namespace {

struct Field {
  int kind = 0;
  FL_CALLBACKPTR app_callback = nullptr; // the object's callback before it became typed
  long app_argument = 0;
};

// The typed fields of the program, keyed by input object.
std::map<FL_OBJECT *, Field> g_fields;

void register_field(FL_OBJECT *obj, int kind, const char *fn) {
  // Programming error (a call the code must never make): fatal by design.
  if (!obj) msg_fatal("(%s) Bad argument\n", fn);
  if (g_fields.count(obj)) msg_fatal("(%s) Callback already defined\n", fn);
  Field f;
  f.kind = kind;
  f.app_callback = obj->callback;
  f.app_argument = obj->argument;
  g_fields[obj] = f;
  fl_set_object_callback(obj, myfl_cb_field, obj->argument);
}

// True when nothing but blanks is in text.
bool blank(const char *text) {
  for (; *text; ++text)
    if (*text != ' ' && *text != '\t') return false;
  return true;
}

// Checks and rewrites the text of a typed field; returns true when it was
// accepted (rewritten in full form or empty).
bool check_field(FL_OBJECT *obj, int kind) {
  std::string text = fl_get_input(obj);
  if (blank(text.c_str())) {
    if (!text.empty()) fl_set_input(obj, "");
    return true;
  }
  char buf[64];
  switch (kind) {
  case MYFL_FIELD_DATUM: {
    int d, m, y;
    if (myfl_parse_datum(text.c_str(), &d, &m, &y)) {
      std::snprintf(buf, sizeof buf, "%02d.%02d.%04d", d, m, y);
      fl_set_input(obj, buf);
      return true;
    }
    fl_show_message("Ungültiges Datum!", "Erlaubt: TT.MM.JJJJ, TT-MM-JJJJ, TTMMJJJJ,",
                    "TT.MM, TTMM oder TT");
    return false;
  }
  case MYFL_FIELD_ZEIT: {
    int h, mi, s;
    if (myfl_parse_zeit(text.c_str(), &h, &mi, &s)) {
      std::snprintf(buf, sizeof buf, "%02d:%02d:%02d", h, mi, s);
      fl_set_input(obj, buf);
      return true;
    }
    fl_show_message("Ungültige Uhrzeit!", "Erlaubt: HH:MM:SS, HH:MM oder HHMM", "");
    return false;
  }
  default: {
    int y, m, d, h, mi, s, us;
    if (myfl_parse_timestamp(text.c_str(), &y, &m, &d, &h, &mi, &s, &us)) {
      std::snprintf(buf, sizeof buf, "%04d-%02d-%02d-%02d.%02d.%02d.%06d", y, m, d, h, mi, s, us);
      fl_set_input(obj, buf);
      return true;
    }
    fl_show_message("Ungültiger Zeitstempel!",
                    "Erlaubt: JJJJ-MM-TT-hh.mm.ss.uuuuuu, JJJJ-MM-TT-hh.mm", "oder JJJJ-MM-TT");
    return false;
  }
  }
}

// The text of an input, or "" for a missing object.
std::string input_text(FL_OBJECT *obj) { return obj ? fl_get_input(obj) : ""; }

void set_text(FL_OBJECT *obj, const char *fmt, int value) {
  char buf[32];
  std::snprintf(buf, sizeof buf, fmt, value);
  fl_set_input(obj, buf);
}

} // namespace

void myfl_set_datum_callback(FL_OBJECT *obj) {
  register_field(obj, MYFL_FIELD_DATUM, "myfl_set_datum_callback");
}
void myfl_set_zeit_callback(FL_OBJECT *obj) {
  register_field(obj, MYFL_FIELD_ZEIT, "myfl_set_zeit_callback");
}
void myfl_set_timestamp_callback(FL_OBJECT *obj) {
  register_field(obj, MYFL_FIELD_TIMESTAMP, "myfl_set_timestamp_callback");
}

int myfl_field_kind(FL_OBJECT *obj) {
  auto it = g_fields.find(obj);
  return it == g_fields.end() ? 0 : it->second.kind;
}

void myfl_free_fields(FL_FORM *form) {
  for (auto it = g_fields.begin(); it != g_fields.end();)
    it = it->first->form == form ? g_fields.erase(it) : std::next(it);
}

void myfl_cb_field(FL_OBJECT *obj, long) {
  if (!obj) return;
  auto it = g_fields.find(obj);
  if (it != g_fields.end()) {
    Field f = it->second; // the callback below may change the table
    if (!check_field(obj, f.kind)) {
      if (obj->form) fl_set_focus_object(obj->form, obj);
      return;
    }
    if (f.app_callback) f.app_callback(obj, f.app_argument);
  }
  // Return in a single-line input moves on, as Tab would between fields.
  if (obj->last_key == FL_KEY_RETURN && obj->type != FL_MULTILINE_INPUT && obj->form)
    myfl_focus_next_input(obj->form, obj);
}

// ---- Parsers ----------------------------------------------------------------

int myfl_parse_datum(const char *text, int *day, int *month, int *year) {
  if (!text) return 0;
  int d = 0, m = 0, y = 0;
  char c;
  bool found = std::sscanf(text, "%d.%d.%d%c", &d, &m, &y, &c) == 3 ||
               std::sscanf(text, "%d-%d-%d%c", &d, &m, &y, &c) == 3 ||
               std::sscanf(text, "%2d%2d%4d%c", &d, &m, &y, &c) == 3;
  if (!found) {
    DATE today;
    DATE_Today(&today);
    y = today.year;
    if (std::sscanf(text, "%d.%d%c", &d, &m, &c) == 2 ||
        std::sscanf(text, "%d-%d%c", &d, &m, &c) == 2 ||
        std::sscanf(text, "%2d%2d%c", &d, &m, &c) == 2) {
      found = true;
    } else if (std::sscanf(text, "%d%c", &d, &c) == 1) {
      m = today.month;
      found = true;
    }
  }
  if (!found) return 0;
  if (y < 1800 || y > 2800 || m < 1 || m > 12 || d < 1 || d > 31) return 0;
  DATE date = {static_cast<int16_t>(y), static_cast<uint8_t>(m), static_cast<uint8_t>(d)};
  if (!DATE_IsValid(&date)) return 0;
  *day = d;
  *month = m;
  *year = y;
  return 1;
}

int myfl_parse_zeit(const char *text, int *hour, int *minute, int *second) {
  if (!text || std::strlen(text) > 8) return 0;
  int h = 0, mi = 0, s = 0;
  char c;
  if (std::sscanf(text, "%d:%d:%d%c", &h, &mi, &s, &c) == 3 ||
      std::sscanf(text, "%2d%2d%2d%c", &h, &mi, &s, &c) == 3) {
    // Only the full form HH:MM:SS itself is accepted with seconds.
    if (!TIME_IsValidString(text)) return 0;
  } else if (std::sscanf(text, "%d:%d%c", &h, &mi, &c) == 2 ||
             std::sscanf(text, "%2d%2d%c", &h, &mi, &c) == 2) {
    char full[40];
    std::snprintf(full, sizeof full, "%02d:%02d:00", h, mi);
    if (!TIME_IsValidString(full)) return 0;
    s = 0;
  } else {
    return 0;
  }
  *hour = h;
  *minute = mi;
  *second = s;
  return 1;
}

int myfl_parse_timestamp(const char *text, int *year, int *month, int *day, int *hour, int *minute,
                         int *second, int *usec) {
  if (!text) return 0;
  int y = 0, m = 0, d = 0, h = 0, mi = 0, s = 0, us = 0;
  char c;
  bool found = false;
  if (std::sscanf(text, "%d-%d-%d-%d.%d.%d.%d%c", &y, &m, &d, &h, &mi, &s, &us, &c) == 7 ||
      std::sscanf(text, "%d.%d.%d.%d.%d.%d.%d%c", &y, &m, &d, &h, &mi, &s, &us, &c) == 7) {
    found = true;
  } else if (std::sscanf(text, "%d-%d-%d-%d.%d%c", &y, &m, &d, &h, &mi, &c) == 5 ||
             std::sscanf(text, "%d.%d.%d.%d.%d%c", &y, &m, &d, &h, &mi, &c) == 5) {
    s = us = 0;
    found = true;
  } else if (std::sscanf(text, "%d-%d-%d%c", &y, &m, &d, &c) == 3 ||
             std::sscanf(text, "%d.%d.%d%c", &y, &m, &d, &c) == 3) {
    h = mi = s = us = 0;
    found = true;
  }
  if (!found) return 0;
  // Out-of-range parts would wrap in the record's narrow fields.
  if (y < 1800 || y > 2800 || m < 1 || m > 12 || d < 1 || d > 31 || h < 0 || h > 23 || mi < 0 ||
      mi > 59 || s < 0 || s > 59)
    return 0;
  DATI dati = {};
  dati.year = static_cast<int16_t>(y);
  dati.month = static_cast<uint8_t>(m);
  dati.day = static_cast<uint8_t>(d);
  dati.hour = static_cast<uint8_t>(h);
  dati.minute = static_cast<uint8_t>(mi);
  dati.second = static_cast<uint8_t>(s);
  dati.usec = us;
  if (!DATI_IsValid(&dati)) return 0;
  *year = y;
  *month = m;
  *day = d;
  *hour = h;
  *minute = mi;
  *second = s;
  *usec = us;
  return 1;
}

// ---- Numbers ------------------------------------------------------------------

int16_t myfl_get_input_short(FL_OBJECT *obj) {
  std::string t = input_text(obj);
  int v;
  char c;
  if (std::sscanf(t.c_str(), "%d%c", &v, &c) != 1 || v < -32768 || v > 32767) return -32768;
  return static_cast<int16_t>(v);
}

int32_t myfl_get_input_long(FL_OBJECT *obj) {
  std::string t = input_text(obj);
  long v;
  char c;
  if (std::sscanf(t.c_str(), "%ld%c", &v, &c) != 1 || v < INT32_MIN || v > INT32_MAX)
    return -2147483647;
  return static_cast<int32_t>(v);
}

double myfl_get_input_double(FL_OBJECT *obj) {
  std::string t = input_text(obj);
  double v;
  char c;
  if (std::sscanf(t.c_str(), "%lf%c", &v, &c) != 1) return DATA_EMPTY_NUMBER;
  return v;
}

// ---- Calendar values ------------------------------------------------------------

int myfl_get_input_datum(FL_OBJECT *obj, DATE *date) {
  std::string t = input_text(obj);
  if (blank(t.c_str())) {
    *date = DATE_MIN;
    return 1;
  }
  int d, m, y;
  if (!myfl_parse_datum(t.c_str(), &d, &m, &y)) return 0;
  *date = {static_cast<int16_t>(y), static_cast<uint8_t>(m), static_cast<uint8_t>(d)};
  return 1;
}

int myfl_get_input_zeit(FL_OBJECT *obj, TIME *time) {
  std::string t = input_text(obj);
  if (blank(t.c_str())) {
    *time = {0, 0, 0};
    return 1;
  }
  int h, mi, s;
  if (!myfl_parse_zeit(t.c_str(), &h, &mi, &s)) return 0;
  *time = {static_cast<uint8_t>(h), static_cast<uint8_t>(mi), static_cast<uint8_t>(s)};
  return 1;
}

int myfl_get_input_timestamp(FL_OBJECT *obj, DATI *dati) {
  std::string t = input_text(obj);
  DATI v = {};
  if (blank(t.c_str())) {
    v.year = 1800;
    v.month = 1;
    v.day = 1;
    *dati = v;
    return 1;
  }
  int y, m, d, h, mi, s, us;
  if (!myfl_parse_timestamp(t.c_str(), &y, &m, &d, &h, &mi, &s, &us)) return 0;
  v.year = static_cast<int16_t>(y);
  v.month = static_cast<uint8_t>(m);
  v.day = static_cast<uint8_t>(d);
  v.hour = static_cast<uint8_t>(h);
  v.minute = static_cast<uint8_t>(mi);
  v.second = static_cast<uint8_t>(s);
  v.usec = us;
  *dati = v;
  return 1;
}

void myfl_set_input_datum(FL_OBJECT *obj, const DATE *date) {
  if (!date || DATE_IsNull(date)) {
    fl_set_input(obj, "");
    return;
  }
  char buf[40];
  std::snprintf(buf, sizeof buf, "%02d.%02d.%04d", date->day, date->month, date->year);
  fl_set_input(obj, buf);
}

void myfl_set_input_zeit(FL_OBJECT *obj, const TIME *time) {
  if (!time) {
    fl_set_input(obj, "");
    return;
  }
  char buf[40];
  std::snprintf(buf, sizeof buf, "%02d:%02d:%02d", time->hour, time->minute, time->second);
  fl_set_input(obj, buf);
}

void myfl_set_input_timestamp(FL_OBJECT *obj, const DATI *dati) {
  if (!dati || (dati->year == 1800 && dati->month == 1 && dati->day == 1 && dati->hour == 0 &&
                dati->minute == 0 && dati->second == 0 && dati->usec == 0)) {
    fl_set_input(obj, "");
    return;
  }
  char buf[DATI_BUFSIZE];
  DATI_ToString(dati, buf, DATI_DEFAULT);
  fl_set_input(obj, buf);
}

void myfl_set_input_year(FL_OBJECT *obj, int year) { set_text(obj, "%04d", year); }
void myfl_set_input_2digits(FL_OBJECT *obj, int value) { set_text(obj, "%02d", value); }

void myfl_set_input_short(FL_OBJECT *obj, int16_t value) {
  if (value == -32768)
    fl_set_input(obj, "");
  else
    set_text(obj, "%d", value);
}

void myfl_set_input_long(FL_OBJECT *obj, int32_t value) {
  if (value == -2147483647)
    fl_set_input(obj, "");
  else
    set_text(obj, "%d", value);
}

void myfl_set_input_double(FL_OBJECT *obj, double value) {
  if (value == DATA_EMPTY_NUMBER) {
    fl_set_input(obj, "");
    return;
  }
  char buf[400];
  std::snprintf(buf, sizeof buf, "%lf", value);
  DATA_TrimNumber(buf);
  fl_set_input(obj, buf);
}
