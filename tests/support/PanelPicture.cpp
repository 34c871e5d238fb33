#include "support/PanelPicture.h"

#include "panel/VfdPanel.h"

QImage pictureOf(VfdPanel &panel, int width, qreal ratio)
{
    panel.resize(width, panel.sizeHint().height());
    QImage picture((QSizeF(panel.size()) * ratio).toSize(), QImage::Format_ARGB32_Premultiplied);
    picture.setDevicePixelRatio(ratio);
    picture.fill(Qt::transparent);
    panel.render(&picture, QPoint(), QRegion(), QWidget::DrawChildren);
    return picture;
}
