// The viewer program: the toolkit's process entry with the viewer's main
// routine.
#include "app/viewer.h"
#include "forms/entry.h"

int main(int argc, char **argv) { return fl_main(argc, argv, zentiq_main); }
