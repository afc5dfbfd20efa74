// The toolkit's fonts: the eight fixed fonts created at start and the fonts of
// labels and input texts chosen by label style and size.
//
// Faces are requested by the names "Helvetica" and "Courier New"; fontconfig
// maps them to metric-compatible faces. Sizes are points, so their pixel
// heights follow the screen's vertical resolution. Which object uses which
// font is left to forms.cpp and the drawing code.
#pragma once

class QFont;

// The eight fonts, in the order of the toolkit's font table.
enum {
  FL_FONT_COURIER_10 = 0,
  FL_FONT_COURIER_10_BOLD = 1,
  FL_FONT_HELVETICA_8 = 2, // console and command windows
  FL_FONT_HELVETICA_8_BOLD = 3,
  FL_FONT_HELVETICA_10 = 4, // default font of forms
  FL_FONT_HELVETICA_9_BOLD = 5,
  FL_FONT_HELVETICA_11 = 6,
  FL_FONT_HELVETICA_11_BOLD = 7,
  FL_FONT_COUNT = 8
};

// Creates the eight fonts (again after fl_delete_fonts). Needs a Qt GUI
// application object.
void fl_create_fonts();
void fl_delete_fonts();
// One of the eight fonts; creates them on first use. index out of range gives
// the default form font.
const QFont &fl_get_font(int index);
// The font for a label style (FL_*_STYLE) and label size: Courier New for the
// fixed styles, Helvetica otherwise; bold for the bold styles and for the
// embossed heading style; italic for the italic styles. Label sizes (10, 12,
// 14) are the toolkit's units of 1.1 pixels, so that labels fit the geometry
// the forms give them.
QFont fl_style_font(int style, int size);
