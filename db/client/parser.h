// The SQL parser and binary statement encoder of the TAVRIN client: checks one
// statement against the grammar and writes its request into the request
// buffer (reqbuf.h) as it goes: one command byte, names and values as tagged
// fields, select lists and expressions in postfix order.
//
// The server never sees SQL text; the same statement always gives the same
// bytes. Tokens come from tokenizer.h; sending the request and reading the
// answer are DBexec's (exec.h).
#pragma once

// Parses `statement` (zero-terminated; words are upper-cased in place) and
// appends its request to the request buffer, which it does not reset first.
// Returns 1 when the statement parsed and was encoded; 0 on a syntax error
// with the message in `message` (DB_MSG_SIZE bytes). After a failure the
// request buffer holds whatever was written before the error. A null
// statement counts as an empty text; a null message buffer returns 0.
int DBexec_encode(char *statement, char *message);
