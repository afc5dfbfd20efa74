// Typed input fields: the framework turns a plain input of the toolkit into a
// date, time or timestamp field, whose callback reads what the user typed
// (short forms included), checks it with the calendar rules and writes the
// value back in its full form; and it reads and writes numbers, dates, times
// and timestamps of inputs.
//
// The inputs themselves (text, reporting mode, when callbacks run) are the
// toolkit's (forms/forms.h); calendar rules and records are base/date.h's.
//
// Process-wide state, in fields.cpp: the table of typed fields (object, kind,
// the application's own callback that runs after a valid entry).
#pragma once

#include "base/date.h"
#include "forms/forms.h"

#include <cstdint>

// Kinds of typed fields.
enum { MYFL_FIELD_DATUM = 1, MYFL_FIELD_ZEIT = 2, MYFL_FIELD_TIMESTAMP = 3 };

// Make obj a date, time or timestamp field. The object's callback becomes the
// framework's field callback; the callback it had before runs after every
// accepted entry. A second registration for the same object prints
// "(myfl_set_datum_callback) Callback already defined\n" (resp. the zeit and
// timestamp names) and ends the program with exit status 1.
void myfl_set_datum_callback(FL_OBJECT *obj);
void myfl_set_zeit_callback(FL_OBJECT *obj);
void myfl_set_timestamp_callback(FL_OBJECT *obj);
// The kind of typed field obj is, 0 for none.
int myfl_field_kind(FL_OBJECT *obj);
// Forgets every typed field of the form (before the form is freed).
void myfl_free_fields(FL_FORM *form);

// The framework's field callback for inputs. For a typed field: an empty text
// is accepted as the null value; a valid text is rewritten in its full form;
// an invalid one shows a message box ("Ungültiges Datum!" and the like, with
// the accepted forms), keeps the text and the focus, and the application's
// callback does not run. For any input: Return in a single-line input passes
// the focus on to the next input field of the form.
void myfl_cb_field(FL_OBJECT *obj, long argument);

// Parsers of user texts. Each returns 1 and fills its outputs for a valid
// value, else 0 with the outputs untouched.
//   Date: "d.m.y", "d-m-y", "DDMMYYYY"; "d.m", "d-m", "DDMM" (current year);
//   "d" (current month and year). Years 1800..2800.
//   Time: "HH:MM:SS" and "HHMMSS" (exactly eight characters as HH:MM:SS),
//   "H:M" and "HHMM" (seconds 0). At most eight characters.
//   Timestamp, year first: "y-m-d-h.mi.s.us" or with dots only, "y-m-d-h.mi"
//   (or dots), "y-m-d" (or dots).
int myfl_parse_datum(const char *text, int *day, int *month, int *year);
int myfl_parse_zeit(const char *text, int *hour, int *minute, int *second);
int myfl_parse_timestamp(const char *text, int *year, int *month, int *day, int *hour, int *minute,
                         int *second, int *usec);

// Numbers of an input: the text read with "%d%c" ("%ld%c", "%lf%c"); exactly
// one conversion gives the number, anything else (an empty text too) the
// type's null marker: -32768, -2147483647, -1e20. A SHORT outside its range
// is the null marker as well.
int16_t myfl_get_input_short(FL_OBJECT *obj);
int32_t myfl_get_input_long(FL_OBJECT *obj);
double myfl_get_input_double(FL_OBJECT *obj);

// Calendar values of an input: 1 and the value for a valid text, 1 and the
// null value for an empty text, 0 (value untouched) for an invalid one.
int myfl_get_input_datum(FL_OBJECT *obj, DATE *date);
int myfl_get_input_zeit(FL_OBJECT *obj, TIME *time);
int myfl_get_input_timestamp(FL_OBJECT *obj, DATI *dati);

// Writers: "%02d.%02d.%04d" (day, month, year), "%02d:%02d:%02d",
// "%04d-%02d-%02d-%02d.%02d.%02d.%06d"; the null date and the null timestamp
// show as the empty text. Single numbers as "%04d" (a year) or "%02d".
void myfl_set_input_datum(FL_OBJECT *obj, const DATE *date);
void myfl_set_input_zeit(FL_OBJECT *obj, const TIME *time);
void myfl_set_input_timestamp(FL_OBJECT *obj, const DATI *dati);
void myfl_set_input_year(FL_OBJECT *obj, int year);
void myfl_set_input_2digits(FL_OBJECT *obj, int value);
// Numbers; the null markers show as the empty text.
void myfl_set_input_short(FL_OBJECT *obj, int16_t value);
void myfl_set_input_long(FL_OBJECT *obj, int32_t value);
void myfl_set_input_double(FL_OBJECT *obj, double value);
