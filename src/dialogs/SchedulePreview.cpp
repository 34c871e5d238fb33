#include "dialogs/SchedulePreview.h"

#include <QLabel>
#include <QPalette>
#include <QStringList>

using namespace Qt::StringLiterals;

QLabel *createSchedulePreview(int minimumHeight, QWidget *parent)
{
    auto *label = new QLabel(parent);
    label->setWordWrap(true);
    label->setTextFormat(Qt::RichText);
    label->setMinimumHeight(minimumHeight);
    // The box is light on every desktop, so its text must not follow the desktop's colour.
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, Qt::black);
    label->setPalette(palette);
    label->setStyleSheet(
        u"QLabel { background:#f4f7f6; border:1px solid #d4dedb; border-radius:3px; padding:6px; }"_s);
    return label;
}

QString schedulePreviewText(const QString &headline, const QString &detail, const QString &next,
                            const QList<QDateTime> &runs)
{
    QString text = u"<b>%1</b><br>%2"_s.arg(headline, detail);
    if (runs.isEmpty())
        return text;
    QStringList times;
    for (const QDateTime &run : runs)
        times += run.toString(u"ddd d MMM HH:mm"_s);
    text += u"<br><span style='color:#555;'>%1 %2</span>"_s.arg(next, times.join(u" &nbsp;|&nbsp; "_s));
    return text;
}
