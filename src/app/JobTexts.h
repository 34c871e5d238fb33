#pragma once

#include <QString>

class QDateTime;
struct MirrorResult;
struct SyncJob;

/** The wording of the window, apart from the window. Translated in the context of MainWindow. */

/** A number of bytes as "512 B", "1.5 KB" or "5120.0 MB"; there is nothing larger. */
QString byteText(qint64 bytes);

/** The one-line outcome of a run, as a job keeps it. */
QString runSummary(const MirrorResult &result);

/** The cell "Next run". */
QString nextRunText(const SyncJob &job, bool autoOn);

/** The cell "Last result". */
QString lastResultText(const SyncJob &job);

/** One line of the log as HTML; whatever `message` holds shows literally. */
QString logLineHtml(const QDateTime &when, const QString &message, int level);
