#pragma once

class QColor;

/** How well one of the colours is read upon the other, from 1 to 21; small text wants 4.5. */
double contrast(const QColor &one, const QColor &other);
