// Name completion: a sorted index of table and attribute names that answers
// a prefix without regard to case, and the completion list that an input of
// the main form opens from it while the user types a name (or on
// Ctrl+Space), inserting the chosen name in place of the typed prefix.
//
// Which names an input offers, and where they come from, is catalog.h's;
// the inputs themselves are the main form's.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "forms/forms.h"

// Names sorted by their case-folded text (ASCII letters compared as upper
// case), each name once.
struct ZqNameIndex {
  std::vector<std::string> keys;  // folded, sorted, unique
  std::vector<std::string> names; // the names as the server spells them
};

// The name with ASCII letters upper-cased; other bytes stay.
std::string zentiq_fold_name(std::string_view name);
// Builds the index from names (duplicates, also in other case, kept once).
void zentiq_index_build(ZqNameIndex *index, std::vector<std::string> names);
// Appends to *out (up to `limit` names in all) the names of the index that
// begin with `prefix`, in folded order. Returns how many were added.
size_t zentiq_index_prefix(const ZqNameIndex &index, std::string_view prefix, size_t limit,
                           std::vector<std::string> *out);
// The names beginning with `prefix` from several indices, merged in folded
// order, each once, at most `limit` of them.
std::vector<std::string> zentiq_complete(const std::vector<const ZqNameIndex *> &indices,
                                         std::string_view prefix, size_t limit);

// How many names the completion list shows at most.
constexpr size_t ZQ_COMPLETION_LIMIT = 200;
// How many characters of a name must be typed before the list opens by
// itself (Ctrl+Space opens it for any prefix).
constexpr int ZQ_COMPLETION_MIN_PREFIX = 2;

// What an input completes: table names, attribute names (of the table in
// "Tabelle" when it is known), or both (the SQL input).
enum ZqCompletionKind { ZQ_COMPLETE_TABLES, ZQ_COMPLETE_ATTRIBUTES, ZQ_COMPLETE_ALL };

// Gives a single- or multi-line input of the toolkit its completion list.
// Returns 1, 0 when obj is no input.
int zentiq_attach_completion(FL_OBJECT *input, ZqCompletionKind kind);
// Opens the completion list of the input for the word before its cursor as
// typing does (force: also for a shorter prefix, as Ctrl+Space does).
// Returns the number of names listed (0: the list is closed).
int zentiq_open_completion(FL_OBJECT *input, bool force);
// The names the input's completion list shows now (empty when it is
// closed), for tests and the benchmark.
std::vector<std::string> zentiq_completion_shown(FL_OBJECT *input);
// Takes name `row` (0-based) of the open list as the user's choice: the
// typed prefix is replaced by it. Returns 1, 0 when there is no such row.
int zentiq_choose_completion(FL_OBJECT *input, int row);
