#pragma once

#include <QDateTime>
#include <QList>
#include <QString>

class QLabel;
class QWidget;

/** The light box in which the editors say what a schedule means. */
QLabel *createSchedulePreview(int minimumHeight, QWidget *parent);

/**
 * Its rich text: a headline, what it comes to, and a line of the next runs unless there are none.
 * `next` is the translated word in front of these.
 */
QString schedulePreviewText(const QString &headline, const QString &detail, const QString &next,
                            const QList<QDateTime> &runs);
