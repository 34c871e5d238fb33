#include "model/SettingsStore.h"

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cctype>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kLockBeingFilledSecs = 2;

const QString kOrganisation = u"Orrinvale"_s;
const QString kApplication = u"Kelpwharf"_s;

/** Where the store lies. To ask the store itself would be to read it. */
QString storePath()
{
    const QSettings neighbour(QSettings::IniFormat, QSettings::UserScope, kOrganisation, u"-"_s);
    return QFileInfo(neighbour.fileName()).path() + u'/' + kApplication + u".ini"_s;
}

/** Whether a value is in binary form, and of another type than QDateTime and QTime. */
bool isUnsafe(QByteArrayView value)
{
    if (!value.startsWith("@DateTime(") && !value.startsWith("@Variant("))
        return false;
    const QByteArrayView type = value.sliced(value.indexOf('(') + 1);
    for (const QByteArrayView safe : {QByteArrayView("\\0\\0\\0\\x10"), QByteArrayView("\\0\\0\\0\\xf")}) {
        const bool isWhole =
            type.size() > safe.size() && !std::isxdigit(static_cast<unsigned char>(type.at(safe.size())));
        if (type.startsWith(safe) && isWhole)
            return false;
    }
    return true;
}

bool holdsUnsafeValue(QByteArrayView line)
{
    const qsizetype equals = line.indexOf('=');
    if (equals < 0)
        return false;
    QByteArrayView rest = line.sliced(equals + 1).trimmed();
    if (rest.startsWith('"'))
        return isUnsafe(rest.sliced(1));
    for (qsizetype comma = rest.indexOf(','); comma >= 0; comma = rest.indexOf(',')) {
        if (isUnsafe(rest.first(comma)))
            return true;
        rest = rest.sliced(comma + 1).trimmed();
    }
    return isUnsafe(rest);
}

void removeUnsafeLines(const QString &path)
{
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        return;
    const QByteArray text = file.readAll();
    file.close();
    const QByteArray safe = withoutUnsafeLines(text);
    if (safe.size() == text.size())
        return;
    QSaveFile rewritten(path);
    if (rewritten.open(QIODevice::WriteOnly) && rewritten.write(safe) == safe.size())
        rewritten.commit();
}

/**
 * A program that is killed between making the file's lock and filling it leaves an empty one. Nobody
 * can tell then that its owner is gone, and every write would wait for half a minute.
 */
void removeAbandonedLock(const QString &settingsPath)
{
    const QFileInfo lock(settingsPath + u".lock"_s);
    const bool isAbandoned = lock.exists() && lock.size() == 0 &&
                             lock.lastModified().secsTo(QDateTime::currentDateTime()) > kLockBeingFilledSecs;
    if (isAbandoned)
        QFile::remove(lock.filePath());
}

} // namespace

QSettings openSettingsStore()
{
    const QString path = storePath();
    removeAbandonedLock(path);
    removeUnsafeLines(path);
    return QSettings(QSettings::IniFormat, QSettings::UserScope, kOrganisation, kApplication);
}

QByteArray withoutUnsafeLines(const QByteArray &file)
{
    QByteArray safe;
    safe.reserve(file.size());
    for (qsizetype begin = 0; begin < file.size();) {
        const qsizetype lineFeed = file.indexOf('\n', begin);
        const qsizetype end = lineFeed < 0 ? file.size() : lineFeed + 1;
        const QByteArrayView line = QByteArrayView(file).sliced(begin, end - begin);
        if (!holdsUnsafeValue(line))
            safe += line;
        begin = end;
    }
    return safe;
}
