#include "update/DialogStyle.h"

#include <QWidget>

QPixmap scaledPicture(const QString &path, int height, const QWidget *widget)
{
    const QPixmap original(path);
    if (original.isNull())
        return {};
    const qreal ratio = widget->devicePixelRatioF();
    QPixmap scaled = original.scaledToHeight(qRound(height * ratio), Qt::SmoothTransformation);
    scaled.setDevicePixelRatio(ratio);
    return scaled;
}
