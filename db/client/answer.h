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
// read completely, 0 when a field was missing or malformed or a cell was
// refused: then the status is 4 and the message is the field reader's
// ("Syntax error: <integer value> expected (unexpected end of query)" and its
// kin), "(DBreset) Result error message missing\n" for an error answer
// without its text, or the result data's refusal (RESDATA_Fill_Binary: a
// CHARACTER value without its zero byte; the result budget passed, or no
// memory, which also drops every row). Otherwise tuples read before the
// failure stay in the result. Nothing here ends the process.
int DBanswer_decode(const unsigned char *answer, size_t length, DBRESULT *res);
