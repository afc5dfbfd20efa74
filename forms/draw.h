// Drawing for the toolkit's drawn object classes (boxes, texts, frames), for
// symbol labels ("@8", "@2->|", "@<", ...) and for custom classes such as the
// tabbox: box and frame looks, labels by alignment, and the base widget class
// of drawn objects.
//
// Colours come from the widget's palette; what each class draws and when is
// left to forms.cpp and to the custom classes.
#pragma once

#include <QWidget>

#include "forms/forms.h"

class QPainter;

// Base of the widgets of drawn objects and of custom classes. It links the
// widget to its object (so that the keyboard filter and fl_object_of_widget
// find it) and paints by calling draw(). Subclasses override draw() and the
// Qt event handlers they need (mousePressEvent, keyPressEvent, ...).
class FlDrawnWidget : public QWidget {
public:
  FlDrawnWidget(FL_OBJECT *obj, QWidget *parent);
  FL_OBJECT *object() const { return obj_; }

protected:
  // Draws the object; the default draws the box by obj->boxtype (frames by
  // obj->type) and the label by obj->align.
  virtual void draw(QPainter &p);
  void paintEvent(QPaintEvent *event) override;

private:
  FL_OBJECT *obj_;
};

// Draws a box of the given type filling r (FL_NO_BOX draws nothing).
void fl_draw_box(QPainter &p, int boxtype, const QRect &r, const QPalette &pal);
// Draws a frame of the given type along r without filling it.
void fl_draw_frame(QPainter &p, int frametype, const QRect &r, const QPalette &pal);
// Draws a label (Latin-1) in r by alignment, with the font of style and size.
// Symbol labels (starting with "@", except "@@" for a literal "@") are drawn
// as glyphs filling the middle of r. underline: index of a character to
// underline, -1 none.
void fl_draw_label(QPainter &p, const char *label, const QRect &r, int align, int style, int size,
                   const QColor &color, int underline = -1);
// Draws a symbol label such as "@8" (arrow up), "@2" (arrow down), "@2->|"
// (arrow down onto a bar), "@<", "@>", "@2<", "@2>" (triangles) centred in r.
// The digit turns the symbol as on a numeric keypad (6 right, 8 up, 4 left,
// 2 down, 9/7/1/3 the diagonals); returns 1, or 0 when label is no symbol.
int fl_draw_symbol(QPainter &p, const char *label, const QRect &r, const QColor &color);
// 1 when label is a symbol label.
int fl_is_symbol_label(const char *label);
// Where a label outside an object is placed: the rectangle next to the object
// (in form coordinates) on the side that align names, sized for the text.
QRect fl_outside_label_rect(const FL_OBJECT *obj);
