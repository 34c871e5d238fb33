#include "support/FileTree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QStringList>

using namespace Qt::StringLiterals;

namespace {

void writeFile(const QString &path, const TreeFile &file)
{
    QFile target(path);
    if (!QDir().mkpath(QFileInfo(path).path()) || !target.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        target.write(file.content) != file.content.size() || !target.flush())
        qFatal("cannot write '%s': %s", qPrintable(path), qPrintable(target.errorString()));
    if (file.modified.isValid() && !target.setFileTime(file.modified, QFileDevice::FileModificationTime))
        qFatal("cannot set the time of '%s': %s", qPrintable(path), qPrintable(target.errorString()));
}

TreeFile readFile(const QFileInfo &info)
{
    QFile source(info.filePath());
    if (!source.open(QIODevice::ReadOnly))
        qFatal("cannot read '%s': %s", qPrintable(source.fileName()), qPrintable(source.errorString()));
    return {source.readAll(), info.fileTime(QFileDevice::FileModificationTime).toUTC()};
}

QString timeText(const TreeFile &file) { return file.modified.toUTC().toString(Qt::ISODate); }

QString fileDifference(const TreeFile &expected, const TreeFile &actual)
{
    if (expected.content.size() != actual.content.size())
        return u"%1 bytes instead of %2"_s.arg(actual.content.size()).arg(expected.content.size());
    if (expected.content != actual.content)
        return u"other content"_s;
    if (expected.modified.toSecsSinceEpoch() != actual.modified.toSecsSinceEpoch())
        return u"of %1 instead of %2"_s.arg(timeText(actual), timeText(expected));
    return {};
}

} // namespace

void writeTree(const QString &folder, const FileTree &tree)
{
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        const QString path = folder + u'/' + it.key();
        if (!path.endsWith(u'/'))
            writeFile(path, it.value());
        else if (!QDir().mkpath(path))
            qFatal("cannot make '%s'", qPrintable(path));
    }
}

FileTree readTree(const QString &folder)
{
    FileTree tree;
    const QDir root(folder);
    QDirIterator walk(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                      QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString path = walk.next();
        const QString name = root.relativeFilePath(path);
        if (!walk.fileInfo().isDir())
            tree.insert(name, readFile(walk.fileInfo()));
        else if (QDir(path).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot))
            tree.insert(name + u'/', {});
    }
    return tree;
}

QString treeDifference(const FileTree &expected, const FileTree &actual)
{
    QStringList differences;
    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        const QString found =
            actual.contains(it.key()) ? fileDifference(*it, actual.value(it.key())) : u"missing"_s;
        if (!found.isEmpty() && !(it.key().endsWith(u'/') && actual.contains(it.key())))
            differences.append(it.key() + u": "_s + found);
    }
    for (auto it = actual.cbegin(); it != actual.cend(); ++it) {
        if (!expected.contains(it.key()))
            differences.append(it.key() + u": not expected"_s);
    }
    return differences.join(u'\n');
}
