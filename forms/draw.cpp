// Drawing of boxes, frames, labels and symbol labels (see draw.h).
#include "forms/draw.h"

#include "forms/fonts.h"
#include "forms/keyfilter.h"

#include <QFontMetrics>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>

#include <cstring>

FlDrawnWidget::FlDrawnWidget(FL_OBJECT *obj, QWidget *parent) : QWidget(parent), obj_(obj) {}

void FlDrawnWidget::paintEvent(QPaintEvent *) {
  QPainter p(this);
  draw(p);
}

void FlDrawnWidget::draw(QPainter &p) {
  QRect r = rect();
  if (obj_->objclass == FL_FRAME)
    fl_draw_frame(p, obj_->type, r, palette());
  else
    fl_draw_box(p, obj_->boxtype, r, palette());
  int pos = obj_->align & ~FL_ALIGN_INSIDE;
  bool inside = (obj_->align & FL_ALIGN_INSIDE) != 0 || pos == FL_ALIGN_CENTER;
  if (inside && !obj_->label.empty()) {
    QColor c =
        palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, QPalette::WindowText);
    int underline = obj_->show_shortcut
                        ? fl_shortcut_label_index(obj_->label.c_str(), obj_->shortcut.c_str())
                        : -1;
    fl_draw_label(p, obj_->label.c_str(), r.adjusted(3, 0, -3, 0), obj_->align, obj_->lstyle,
                  obj_->lsize, c, underline);
  }
}

namespace {

// Bevel of raised (up) or sunken boxes: light top and left, dark bottom and
// right, or the other way round.
void bevel(QPainter &p, const QRect &r, const QPalette &pal, bool up) {
  QColor tl = up ? pal.color(QPalette::Light) : pal.color(QPalette::Dark);
  QColor br = up ? pal.color(QPalette::Dark) : pal.color(QPalette::Light);
  p.setPen(tl);
  p.drawLine(r.left(), r.top(), r.right(), r.top());
  p.drawLine(r.left(), r.top(), r.left(), r.bottom());
  p.setPen(br);
  p.drawLine(r.left(), r.bottom(), r.right(), r.bottom());
  p.drawLine(r.right(), r.top(), r.right(), r.bottom());
}

// Two offset rectangles: a groove (engraved) or a ridge (embossed).
void etch(QPainter &p, const QRect &r, const QPalette &pal, bool engraved) {
  QColor a = engraved ? pal.color(QPalette::Dark) : pal.color(QPalette::Light);
  QColor b = engraved ? pal.color(QPalette::Light) : pal.color(QPalette::Dark);
  p.setBrush(Qt::NoBrush);
  p.setPen(b);
  p.drawRect(r.adjusted(1, 1, -1, -1));
  p.setPen(a);
  p.drawRect(r.adjusted(0, 0, -2, -2));
}

} // namespace

void fl_draw_box(QPainter &p, int boxtype, const QRect &r, const QPalette &pal) {
  if (boxtype == FL_NO_BOX || r.isEmpty()) return;
  p.save();
  switch (boxtype) {
  case FL_UP_BOX:
    p.fillRect(r, pal.color(QPalette::Button));
    bevel(p, r, pal, true);
    break;
  case FL_DOWN_BOX:
    p.fillRect(r, pal.color(QPalette::Button));
    bevel(p, r, pal, false);
    break;
  case FL_BORDER_BOX:
    p.fillRect(r, pal.color(QPalette::Base));
    p.setPen(pal.color(QPalette::Shadow));
    p.drawRect(r.adjusted(0, 0, -1, -1));
    break;
  case FL_SHADOW_BOX:
    p.fillRect(r.adjusted(3, 3, 0, 0), pal.color(QPalette::Shadow));
    p.fillRect(r.adjusted(0, 0, -3, -3), pal.color(QPalette::Window));
    p.setPen(pal.color(QPalette::Shadow));
    p.drawRect(r.adjusted(0, 0, -4, -4));
    break;
  case FL_ROUNDED_BOX:
    p.setRenderHint(QPainter::Antialiasing);
    p.setBrush(pal.color(QPalette::Window));
    p.setPen(pal.color(QPalette::Dark));
    p.drawRoundedRect(QRectF(r).adjusted(0.5, 0.5, -0.5, -0.5), 6, 6);
    break;
  case FL_FRAME_BOX:
    p.fillRect(r, pal.color(QPalette::Window));
    etch(p, r, pal, true);
    break;
  case FL_EMBOSSED_BOX:
    p.fillRect(r, pal.color(QPalette::Window));
    etch(p, r, pal, false);
    break;
  default: // FL_FLAT_BOX and unknown types: a plain area
    p.fillRect(r, pal.color(QPalette::Window));
    break;
  }
  p.restore();
}

void fl_draw_frame(QPainter &p, int frametype, const QRect &r, const QPalette &pal) {
  if (frametype == FL_NO_FRAME || r.isEmpty()) return;
  p.save();
  switch (frametype) {
  case FL_UP_FRAME:
    bevel(p, r, pal, true);
    break;
  case FL_DOWN_FRAME:
    bevel(p, r, pal, false);
    break;
  case FL_EMBOSSED_FRAME:
    etch(p, r, pal, false);
    break;
  case FL_BORDER_FRAME:
  case FL_SHADOW_FRAME:
    p.setPen(pal.color(QPalette::Shadow));
    p.drawRect(r.adjusted(0, 0, -1, -1));
    break;
  default: // FL_ENGRAVED_FRAME
    etch(p, r, pal, true);
    break;
  }
  p.restore();
}

int fl_is_symbol_label(const char *label) {
  return label && label[0] == '@' && label[1] != '@' ? 1 : 0;
}

int fl_draw_symbol(QPainter &p, const char *label, const QRect &r, const QColor &color) {
  if (!fl_is_symbol_label(label)) return 0;
  const char *s = label + 1;
  if (*s == '#') ++s; // keep the aspect: symbols are always drawn square here
  int angle = 0;      // counter-clockwise degrees; the digit works like a keypad
  if (*s >= '1' && *s <= '9') {
    static const int angles[10] = {0, 225, 270, 315, 180, 0, 0, 135, 90, 45};
    angle = angles[*s - '0'];
    ++s;
  }
  std::string name = s;
  double side = std::min(r.width(), r.height()) * 0.36;
  if (side < 2) return 1;
  p.save();
  p.setRenderHint(QPainter::Antialiasing);
  p.translate(QRectF(r).center());
  p.rotate(-angle);
  p.scale(side, side);
  p.setPen(Qt::NoPen);
  p.setBrush(color);
  if (name == ">" || name == "<") {
    double d = name == ">" ? 1 : -1;
    QPolygonF tri;
    tri << QPointF(-0.55 * d, -0.85) << QPointF(0.65 * d, 0) << QPointF(-0.55 * d, 0.85);
    p.drawPolygon(tri);
  } else if (name == ">>" || name == "<<") {
    double d = name == ">>" ? 1 : -1;
    for (double off : {-0.45, 0.45}) {
      QPolygonF tri;
      tri << QPointF((off - 0.45) * d, -0.8) << QPointF((off + 0.45) * d, 0)
          << QPointF((off - 0.45) * d, 0.8);
      p.drawPolygon(tri);
    }
  } else {
    // An arrow ("->", also the default); "->|" ends on a bar.
    bool bar = name == "->|";
    double tip = bar ? 0.55 : 0.9;
    QPolygonF arrow;
    arrow << QPointF(-0.9, -0.2) << QPointF(tip - 0.65, -0.2) << QPointF(tip - 0.65, -0.7)
          << QPointF(tip, 0) << QPointF(tip - 0.65, 0.7) << QPointF(tip - 0.65, 0.2)
          << QPointF(-0.9, 0.2);
    p.drawPolygon(arrow);
    if (bar) p.drawRect(QRectF(0.7, -0.8, 0.22, 1.6));
  }
  p.restore();
  return 1;
}

void fl_draw_label(QPainter &p, const char *label, const QRect &r, int align, int style, int size,
                   const QColor &color, int underline) {
  if (!label || !*label) return;
  if (fl_draw_symbol(p, label, r, color)) return;
  if (label[0] == '@' && label[1] == '@') ++label;
  int pos = align & ~FL_ALIGN_INSIDE;
  int flags = Qt::TextSingleLine;
  if (pos & FL_ALIGN_LEFT)
    flags |= Qt::AlignLeft;
  else if (pos & FL_ALIGN_RIGHT)
    flags |= Qt::AlignRight;
  else
    flags |= Qt::AlignHCenter;
  if (pos & FL_ALIGN_TOP)
    flags |= Qt::AlignTop;
  else if (pos & FL_ALIGN_BOTTOM)
    flags |= Qt::AlignBottom;
  else
    flags |= Qt::AlignVCenter;
  QString text = QString::fromLatin1(label);
  if (underline >= 0 && underline < text.size()) {
    text.replace(QLatin1Char('&'), QLatin1String("&&"));
    int at = underline;
    for (int i = 0; i < underline; ++i)
      if (label[i] == '&') ++at;
    text.insert(at, QLatin1Char('&'));
    flags |= Qt::TextShowMnemonic;
  }
  p.save();
  p.setFont(fl_style_font(style, size));
  if (style & FL_EMBOSSED_STYLE) {
    // Headings: a light relief below and right of the text.
    p.setPen(QColor(255, 255, 255, 160));
    p.drawText(r.translated(1, 1), flags, text);
  }
  p.setPen(color);
  p.drawText(r, flags, text);
  p.restore();
}

QRect fl_outside_label_rect(const FL_OBJECT *obj) {
  QFontMetrics fm(fl_style_font(obj->lstyle, obj->lsize));
  const char *label = obj->label.c_str();
  int tw =
      fl_is_symbol_label(label) ? obj->h : fm.horizontalAdvance(QString::fromLatin1(label)) + 4;
  int th = fm.height() + 2;
  int pos = obj->align & ~FL_ALIGN_INSIDE;
  if (pos & FL_ALIGN_LEFT) return QRect(obj->x - tw, obj->y, tw, obj->h);
  if (pos & FL_ALIGN_RIGHT) return QRect(obj->x + obj->w, obj->y, tw, obj->h);
  if (pos & FL_ALIGN_TOP) return QRect(obj->x, obj->y - th, std::max(obj->w, tw), th);
  if (pos & FL_ALIGN_BOTTOM) return QRect(obj->x, obj->y + obj->h, std::max(obj->w, tw), th);
  return QRect(obj->x, obj->y, obj->w, obj->h);
}
