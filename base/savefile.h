// Writing a file so that a failure never costs its old contents: the new
// contents go into a temporary file in the same folder, which replaces the
// file by a rename only when everything was written and synced. A write that
// fails, or a program that stops half-way, leaves the old file as it was.
//
// A replaced file keeps its permission bits; a new one gets 0666 less the
// umask, as fopen would give it. A path that names something other than a
// regular file (a device such as /dev/null, a FIFO) is written directly,
// since it cannot be replaced. A symbolic link is followed: the file it
// points to is replaced, the link stays.
//
// What goes into the file, and the messages about failures, are the
// caller's; errno tells why an operation failed.
#pragma once

#include <cstdio>
#include <memory>

struct SAVEFILE;

// Opens a write to `path`. Returns the handle (owned by the caller, ended by
// SAVEFILE_Commit or SAVEFILE_Abort), or null with errno set; a file that
// exists but may not be written is refused with EACCES as fopen would.
SAVEFILE *SAVEFILE_Open(const char *path);

// The stream to write the new contents into; it belongs to the handle.
std::FILE *SAVEFILE_Stream(SAVEFILE *file);

// Flushes, syncs and closes the new contents and puts them in place of the
// old file. Returns 1, or 0 with errno set (the temporary file removed, the
// old file untouched). Frees the handle either way.
int SAVEFILE_Commit(SAVEFILE *file);

// Drops the new contents: removes the temporary file and frees the handle.
// The old file stays as it was. Null is allowed.
void SAVEFILE_Abort(SAVEFILE *file);

// A handle that is dropped unless it was committed (release() it into
// SAVEFILE_Commit).
struct SAVEFILE_Dropper {
  void operator()(SAVEFILE *file) const { SAVEFILE_Abort(file); }
};
using SaveFile = std::unique_ptr<SAVEFILE, SAVEFILE_Dropper>;
