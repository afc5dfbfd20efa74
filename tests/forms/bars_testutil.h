// Finding the column bars ("|") of a drawn tabbox in a picture of it, for the
// tests that check that a line's bars stand under the title's at any font
// and scale. Include after the toolkit's headers (Qt's "slots" keyword).
#pragma once

#include <QImage>

#include <vector>

namespace bars_test {

// The centres (in the image's pixels) of the bars in the text row
// [top, top + height) between x = left and right: runs of columns in which
// at least three quarters of the row's pixels are dark. A bar reaches from
// above the capitals to below the baseline; the strokes of letters and
// digits are shorter, so a row of those shows its bars only.
inline std::vector<double> bar_columns(const QImage &img, int top, int height, int left,
                                       int right) {
  std::vector<double> found;
  int run_start = -1;
  for (int x = left; x <= right; ++x) {
    int dark = 0;
    if (x < right && x < img.width())
      for (int y = top; y < top + height && y < img.height(); ++y)
        if (qGray(img.pixel(x, y)) < 180) ++dark;
    const bool bar = x < right && dark * 4 >= height * 3;
    if (bar && run_start < 0) run_start = x;
    if (!bar && run_start >= 0) {
      found.push_back((run_start + x - 1) / 2.0);
      run_start = -1;
    }
  }
  return found;
}

} // namespace bars_test
