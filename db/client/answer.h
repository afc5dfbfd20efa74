// Decoding of the server's answer envelope into a statement result: the
// first byte says the kind (error text, done, tuples of two kinds, count),
// the fields after it are read with a bounds check each.
//
// Only the bytes of one answer are looked at; receiving them is the
// transport's business and storing the tuples RESDATA's (resdata.h).
#pragma once

#include <cstddef>

#include "db/client/resdata.h"
#include "db/wire/wire.h"

// Decodes `length` bytes of an answer into `res` (status 1 and no tuples on
// entry). Sets the status: '0' 4 with the server's text as message, '2' 2,
// '4' 3, '1', '3' and unknown kinds leave 1. Returns 1 when the answer was
// read completely, 0 when a field was missing or malformed: then the status
// is 4 and the message is the field reader's ("Syntax error: <integer value>
// expected (unexpected end of query)" and its kin), or "(DBreset) Result
// error message missing\n" for an error answer without its text. Tuples read
// before the failure stay in the result. A CHARACTER value without its zero
// byte ends the process (RESDATA_Fill_Binary).
int DBanswer_decode(const unsigned char *answer, size_t length, DBRESULT *res);
