#pragma once

#include <QPixmap>
#include <QString>

class QWidget;

/** What the dialogs about the program itself have in common. */

/** Sharp at the widget's pixel ratio, height in device-independent pixels; null if it does not load. */
QPixmap scaledPicture(const QString &path, int height, const QWidget *widget);
