// Where the programs find their read-only data files (the viewer's help
// file): a file in the working folder comes first, as it always did; else the
// installed copy in share/zentiq beside the program's own folder
// (<prefix>/bin/../share/zentiq). The path comes from the program's own
// executable, so an unpacked package works from any prefix, and a build folder
// works when its programs are run from it (the build mirrors that layout).
//
// What the files hold and who may write them is the callers' business.
#pragma once

#include <string>

// The folder share/zentiq next to the running program's folder, without a
// trailing slash; "" when /proc/self/exe cannot be read.
std::string datadir_installed();

// The path to open for the data file `name`: `name` itself when it exists in
// the working folder or exists nowhere (so a file made later lands in the
// working folder), else the installed copy's path.
std::string datadir_find(const char *name);
