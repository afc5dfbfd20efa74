// tavrin compress / uncompress: files and pipes to and from the Varne format.
//
// Both stream block by block through the base library's Varne coder, so
// inputs of any size pass with bounded memory. The format itself is
// base/varne's business.
#pragma once

// Further help lines of the two commands.
#define VARNE_COMPRESS_HELP                                                                        \
  "IN defaults to standard input, OUT to standard output; \"-\" names them too.\n"                 \
  "  -b        thorough search: output some 3 to 5 percent smaller, several\n"                     \
  "            times slower\n"                                                                     \
  "  -m MIN    shortest repeat that is coded (5..256, default 5)\n"                                \
  "  -c CACHE  search buffers in KiB (5..4096, default 4096); smaller is faster\n"                 \
  "            and finds repeats only nearer back\n"
#define VARNE_UNCOMPRESS_HELP                                                                      \
  "IN defaults to standard input, OUT to standard output; \"-\" names them too.\n"                 \
  "Damaged or truncated input ends the command with exit status 1; an existing\n"                  \
  "OUT is replaced only when the command succeeds.\n"

// The run functions of the command table; argv[0] is the command name.
int cmd_compress(int argc, char **argv);
int cmd_uncompress(int argc, char **argv);
