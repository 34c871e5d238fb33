#include "update/DialogStyle.h"

#include <QPalette>
#include <QWidget>

namespace {

constexpr int kLightEnough = 200; ///< grey text has a contrast of 4.5 to 1 from here on
constexpr QColor kLightGround(0xF0, 0xF0, 0xF0);

} // namespace

void ensureLightGround(QWidget *dialog)
{
    if (dialog->palette().color(QPalette::Window).lightness() < kLightEnough)
        dialog->setPalette(QPalette(kLightGround));
}

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
