#pragma once

#include <QImage>

class VfdPanel;

/** The panel as it paints itself at this width and device pixel ratio, on nothing. */
QImage pictureOf(VfdPanel &panel, int width, qreal ratio = 1.0);
