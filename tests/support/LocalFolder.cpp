#include "support/LocalFolder.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <filesystem>

#ifdef Q_OS_UNIX
#include <unistd.h>
#endif

using namespace Qt::StringLiterals;

namespace {

const QString kArrow = u" -> "_s;
const QString kColon = u": "_s;
const QFile::Permissions kReadable = QFile::ReadOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup |
                                     QFile::ReadOther | QFile::ExeOther;

void need(bool done, const QString &path)
{
    if (!done)
        qFatal("cannot make '%s'", qPrintable(path));
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(unreadable)");
}

QString linkTarget(const QFileInfo &link)
{
    return QString::fromStdU16String(std::filesystem::read_symlink(link.filesystemFilePath()).u16string());
}

/** Calls `tell` with the relative path of everything below, and what it is. */
template <typename Tell>
void forEachBelow(const QString &root, Tell tell)
{
    QDirIterator walk(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                      QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        walk.next();
        tell(QDir(root).relativeFilePath(walk.filePath()), walk.fileInfo());
    }
}

} // namespace

void plant(const QString &root, const QStringList &lines)
{
    need(QDir().mkpath(root), root);
    for (const QString &line : lines) {
        const qsizetype arrow = line.indexOf(kArrow);
        const qsizetype colon = line.indexOf(kColon);
        const QString path = root + u'/' + line.left(arrow >= 0 ? arrow : colon);
        need(QDir().mkpath(path.left(path.lastIndexOf(u'/'))), path);
        if (arrow >= 0) {
            need(QFile::link(line.sliced(arrow + kArrow.size()), path), path);
        } else if (!line.endsWith(u'/')) {
            QFile file(path);
            need(colon >= 0 && file.open(QIODevice::WriteOnly | QIODevice::Truncate), path);
            file.write(line.sliced(colon + kColon.size()).toUtf8());
        }
    }
}

QStringList treeLines(const QString &root)
{
    QStringList lines;
    forEachBelow(root, [&lines](const QString &name, const QFileInfo &entry) {
        if (entry.isSymbolicLink())
            lines += name + kArrow + linkTarget(entry);
        else if (!entry.isDir())
            lines += name + kColon + QString::fromUtf8(contentOf(entry.filePath()));
        else if (QDir(entry.filePath())
                     .isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
            lines += name + u'/';
    });
    return sorted(lines);
}

QStringList sorted(QStringList lines)
{
    lines.sort();
    return lines;
}

void setFileTime(const QString &path, const QByteArray &digits)
{
    // Date and time apart: as local time, those that a clock change leaves out would be invalid.
    const QDate date = QDate::fromString(QString::fromLatin1(digits.left(8)), u"yyyyMMdd"_s);
    const QTime time = QTime::fromString(QString::fromLatin1(digits.mid(8)), u"HHmmss"_s);
    QFile file(path);
    need(date.isValid() && time.isValid() && file.open(QIODevice::ReadWrite) &&
             file.setFileTime(QDateTime(date, time, Qt::UTC), QFileDevice::FileModificationTime),
         path);
}

QByteArray fileTime(const QString &path)
{
    const QFileInfo file(path);
    return file.fileTime(QFileDevice::FileModificationTime).toUTC().toString(u"yyyyMMddHHmmss"_s).toLatin1();
}

LocalFolder::LocalFolder(const QStringList &lines)
{
    need(area.isValid(), area.path());
    plant(path(), lines);
    plant(area.path(),
          {u"canary.txt: above all"_s, u"above/canary.txt: beside the folder"_s,
           u"above/canary/inner.txt: in a folder beside it"_s, u"above/canary/deep/innermost.txt: deeper"_s,
           u"above/local.canary/inner.txt: in one of a name alike"_s});
    for (const QString &name : {u"canary.txt"_s, u"above/canary.txt"_s, u"above/canary/inner.txt"_s,
                                u"above/canary/deep/innermost.txt"_s, u"above/local.canary/inner.txt"_s})
        setFileTime(area.filePath(name), "20010203040506");
    untouched = outside();
}

QString LocalFolder::harm() const
{
    const QStringList now = outside();
    QStringList changes;
    for (const QString &line : untouched) {
        if (!now.contains(line))
            changes += u"gone: "_s + line;
    }
    for (const QString &line : now) {
        if (!untouched.contains(line))
            changes += u"new: "_s + line;
    }
    return changes.join(u'\n');
}

QStringList LocalFolder::outside() const
{
    QStringList lines;
    forEachBelow(area.path(), [&lines](const QString &name, const QFileInfo &entry) {
        if (name.startsWith(u"above/local/"))
            return;
        QString line = name;
        if (entry.isSymbolicLink())
            line += kArrow + linkTarget(entry);
        else if (entry.isFile())
            line += kColon + QString::fromUtf8(contentOf(entry.filePath())) + u" @"_s +
                    QString::fromLatin1(fileTime(entry.filePath()));
        lines += line;
    });
    return sorted(lines);
}

UnwritableFolder::UnwritableFolder(const QString &folderPath) : path(folderPath)
{
    need(QFile::setPermissions(path, kReadable), path);
#ifdef Q_OS_UNIX
    constexpr uid_t kNobody = 65534;
    wasRoot = ::geteuid() == 0;
    if (!wasRoot)
        return;
    // Temporary folders are closed to others, and so all that is in them.
    for (QString above = QFileInfo(path).path(); above != QDir::tempPath() && above.size() > 1;
         above = QFileInfo(above).path())
        QFile::setPermissions(above, QFile::permissions(above) | kReadable);
    need(::seteuid(kNobody) == 0, path);
#endif
}

UnwritableFolder::~UnwritableFolder()
{
#ifdef Q_OS_UNIX
    if (wasRoot)
        need(::seteuid(0) == 0, path);
#endif
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}
