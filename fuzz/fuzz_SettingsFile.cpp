#include "Check.h"

#include "model/SettingsStore.h"
#include "model/SyncJob.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kMostJobs = 10; ///< a thousand empty ones would take all the time

/** QSettings keeps what it knows of a file by its path, so each input has a home of its own. */
QString freshHome()
{
    static const QTemporaryDir base;
    static quint64 count = 0;
    QString home = base.filePath(QString::number(++count));
    QDir().mkpath(home + u"/Orrinvale"_s);
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, home);
    return home;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/** The file that the program makes of this one: loads it and saves what it has read. */
QByteArray savedAgain(const QByteArray &settingsFile)
{
    const QString home = freshHome();
    const QString path = home + u"/Orrinvale/Kelpwharf.ini"_s;
    QFile file(path);
    check(file.open(QIODevice::WriteOnly) && file.write(settingsFile) == settingsFile.size(),
          "the fuzzer can write its file");
    file.close();

    AppSettings settings;
    settings.load();
    for (const SyncJob &job : std::as_const(settings.jobs)) {
        check(!job.name.isEmpty(), "a job has a name");
        check(!job.rules.isEmpty(), "a job has a rule");
        check(!job.queued && !job.running && !job.nextRun.isValid(), "a loaded job is at rest");
    }
    if (settings.jobs.size() > kMostJobs)
        settings.jobs.resize(kMostJobs);
    settings.save();
    const QByteArray saved = contentOf(path);
    QDir(home).removeRecursively();
    return saved;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qputenv("HOME", "/nonexistent");
    qputenv("XDG_CONFIG_HOME", "/nonexistent");
    qputenv("XDG_CONFIG_DIRS", "/nonexistent");
    qputenv("TZ", "UTC");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray first = savedAgain(inputBytes(data, size));
    const QByteArray second = savedAgain(first);
    check(second == savedAgain(second), "what the program has written it reads and writes alike");
    check(withoutUnsafeLines(second) == second, "the program writes nothing that it would not read");
    return 0;
}
