#include "app/JobTexts.h"

#include "model/LogLevel.h"
#include "model/SyncJob.h"

#include <QCoreApplication>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kKilobyte = 1024;
constexpr qint64 kMegabyte = 1024 * kKilobyte;

QString inUnits(qint64 bytes, qint64 unit)
{
    return QString::number(static_cast<double>(bytes) / static_cast<double>(unit), 'f', 1);
}

} // namespace

QString byteText(qint64 bytes)
{
    if (bytes < kKilobyte)
        return u"%1 B"_s.arg(bytes);
    if (bytes < kMegabyte)
        return u"%1 KB"_s.arg(inUnits(bytes, kKilobyte));
    return u"%1 MB"_s.arg(inUnits(bytes, kMegabyte));
}

QString runSummary(const MirrorResult &result)
{
    return QCoreApplication::translate("MainWindow", "%1 NEW · %2 SAME · %3 DEL · %4 FAIL · %5")
        .arg(QString::number(result.downloaded), QString::number(result.upToDate),
             QString::number(result.deleted), QString::number(result.failed), byteText(result.bytes));
}

QString nextRunText(const SyncJob &job, bool autoOn)
{
    if (job.running)
        return QCoreApplication::translate("MainWindow", "running...");
    if (job.queued)
        return QCoreApplication::translate("MainWindow", "queued");
    if (!job.enabled)
        return QCoreApplication::translate("MainWindow", "disabled");
    if (autoOn && job.nextRun.isValid())
        return job.nextRun.toString(u"ddd HH:mm:ss"_s);
    return QCoreApplication::translate("MainWindow", "manual");
}

QString lastResultText(const SyncJob &job)
{
    if (!job.lastRun.isValid())
        return QCoreApplication::translate("MainWindow", "never run");
    return u"%1  %2"_s.arg(job.lastRun.toString(u"HH:mm"_s), job.lastSummary);
}

QString logLineHtml(const QDateTime &when, const QString &message, int level)
{
    static const QString colours[] = {u"#56f0e2"_s, u"#cc9235"_s, u"#e54838"_s, u"#2e8f86"_s};
    QString escaped = message;
    escaped.replace(u'&', u"&amp;"_s).replace(u'<', u"&lt;"_s).replace(u'>', u"&gt;"_s);
    const QString colour = colours[std::clamp<int>(level, LogInformation, LogProtocol)];
    return u"<span style='color:#2e8f86;'>[%1]</span> <span style='color:%2;'>%3</span>"_s.arg(
        when.toString(u"yyyy-MM-dd HH:mm:ss"_s), colour, escaped);
}
