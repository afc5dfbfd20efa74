// The terminal edge of tavrin: the program works in Latin-1 like the rest of
// the system, the terminal (arguments, messages, printed rows) speaks UTF-8.
//
// These helpers convert texts as they cross that edge and print tavrin's own
// messages on standard error. What the texts say is left to the commands.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

// UTF-8 form of a Latin-1 text (every byte >= 128 becomes two bytes).
std::string term_from_latin1(std::string_view latin1);

// Latin-1 form of a terminal text. Characters beyond Latin-1 become '?', and
// bytes that are not valid UTF-8 are kept as they are (so Latin-1 input passes
// through unchanged). *exact, when given, is set to false if any '?' was put in.
std::string term_to_latin1(std::string_view utf8, bool *exact = nullptr);

// Writes a Latin-1 text to a terminal stream in UTF-8. Returns false when the
// stream reports an error.
bool term_write(FILE *stream, std::string_view latin1);

// Formats a Latin-1 message like printf and prints it on standard error in
// UTF-8 after the prefix "tavrin: ". A line feed is added when missing.
void term_error(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Routes the system's message printer (warnings and diagnostics of the
// libraries) to standard error in UTF-8. Called once at start.
void term_install_msg_handler();
