#include "support/TestSettings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

using namespace Qt::StringLiterals;

TestSettings::TestSettings()
{
    Q_ASSERT(home.isValid());
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path()));
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, home.path());
    QDir().mkpath(QFileInfo(filePath()).path());
}

QString TestSettings::filePath() const { return home.filePath(u"Orrinvale/Kelpwharf.ini"_s); }

void TestSettings::write(const QByteArray &text) const
{
    QFile file(filePath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text) != text.size())
        qFatal("cannot write the test's settings");
}

QByteArray TestSettings::read() const
{
    QFile file(filePath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void TestSettings::clear() const { QFile::remove(filePath()); }
