// The toolkit's fonts (see fonts.h). The table is process-wide: there is one
// set of fonts per program, created at toolkit start.
#include "forms/fonts.h"

#include <QFont>

#include <array>
#include <memory>

namespace {

constexpr int FL_NORMAL_SIZE_UNITS = 10;

struct FontSpec {
  const char *face;
  int points;
  bool bold;
};

constexpr std::array<FontSpec, FL_FONT_COUNT> kFonts = {{
    {"Courier New", 10, false},
    {"Courier New", 10, true},
    {"Helvetica", 8, false},
    {"Helvetica", 8, true},
    {"Helvetica", 10, false},
    {"Helvetica", 9, true},
    {"Helvetica", 11, false},
    {"Helvetica", 11, true},
}};

std::unique_ptr<std::array<QFont, FL_FONT_COUNT>> g_fonts;

QFont make_font(const char *face, int points, bool bold, bool italic) {
  QFont f(QString::fromLatin1(face), points, bold ? QFont::Bold : QFont::Normal, italic);
  return f;
}

} // namespace

void fl_create_fonts() {
  g_fonts = std::make_unique<std::array<QFont, FL_FONT_COUNT>>();
  for (int i = 0; i < FL_FONT_COUNT; ++i)
    (*g_fonts)[i] = make_font(kFonts[i].face, kFonts[i].points, kFonts[i].bold, false);
}

void fl_delete_fonts() { g_fonts.reset(); }

const QFont &fl_get_font(int index) {
  if (!g_fonts) fl_create_fonts();
  if (index < 0 || index >= FL_FONT_COUNT) index = FL_FONT_HELVETICA_10;
  return (*g_fonts)[index];
}

QFont fl_style_font(int style, int size) {
  int face = style & 7;
  bool fixed = (face & 4) != 0;
  bool bold = (face & 1) != 0 || (style & 2048) != 0;
  bool italic = (face & 2) != 0;
  if (size <= 0) size = FL_NORMAL_SIZE_UNITS;
  QFont f = make_font(fixed ? "Courier New" : "Helvetica", 10, bold, italic);
  // Label sizes are the toolkit's units, 1.1 pixels each: the forms' geometry
  // is laid out for labels of that height.
  f.setPixelSize(static_cast<int>(size * 1.1 + 0.5));
  return f;
}
