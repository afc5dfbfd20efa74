// Helpers shared by the GUI test programs (forms and framework).
#pragma once

#include <gtest/gtest.h>

struct FL_FORM;

// Shows the form and waits until it is the active window, so that keys reach
// its focused widget as they would on a desktop.
void show_and_activate(FL_FORM *form);
