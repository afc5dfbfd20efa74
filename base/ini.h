// The application's INI file "<base name>.ini": a list of keyed lines
// "[KEY]value" whose value form each caller defines (tabbox settings, form
// positions). Finds, replaces-or-adds and deletes one keyed line; replacing and
// deleting rewrite the whole file through an anonymous temporary file, which
// also drops every empty line of the file.
//
// Where the base name comes from is the start-up's business; what the values
// mean is the callers'. No locking: two processes rewriting one file at once
// can lose each other's changes.
//
// Process-wide state, in ini.cpp: the line buffer that INI_GetLine returns.
#pragma once

#include <cstddef>

// Lines are read in pieces of at most INI_LINE_MAX - 1 characters (a longer
// line counts as several lines); line buffers hold INI_LINE_MAX bytes.
constexpr size_t INI_LINE_MAX = 10000;

// Returns the 1-based number of the first line of `filename` whose key (the
// text between a leading '[' and the first ']') equals `key` exactly, with
// that whole line, line end included, in `line` (INI_LINE_MAX bytes). Returns
// 0 with `line` empty when there is no such line or the file cannot be read.
int INI_FindKey(const char *filename, const char *key, char *line);

// The whole first line of "<basename>.ini" with `key`, line end included, in
// a process-wide buffer that the next call overwrites; nullptr when the key
// (or the file) is not there.
const char *INI_GetLine(const char *basename, const char *key);

// Puts `line` (the caller's complete text: bracketed key, value, line end) in
// place of the first line with `key`, or appends it when there is none (which
// creates the file). Failures print a message and leave the file as it was,
// except a failure to reopen it for the copy-back.
void INI_PutLine(const char *basename, const char *key, const char *line);

// Removes the first line with `key`; nothing happens when it is not there.
void INI_DeleteLine(const char *basename, const char *key);
