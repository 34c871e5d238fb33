#include "model/SettingsStore.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kLockBeingFilledSecs = 2;

QSettings openStore()
{
    return QSettings(QSettings::IniFormat, QSettings::UserScope, u"Orrinvale"_s, u"Kelpwharf"_s);
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
    removeAbandonedLock(openStore().fileName());
    return openStore();
}
