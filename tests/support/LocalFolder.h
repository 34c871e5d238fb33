#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/**
 * Makes below `root` what the lines tell: "sub/b.txt: its content", "empty/", "now -> its target".
 * The folders in between come with them.
 */
void plant(const QString &root, const QStringList &lines);

/** What is below `root`, hidden or not, as sorted lines of the same form; links are not followed. */
QStringList treeLines(const QString &root);

/** Sorts what a test expects of treeLines(). */
QStringList sorted(QStringList lines);

/** Sets a file's time to the UTC digits "20240131120000". */
void setFileTime(const QString &path, const QByteArray &digits);

/** A file's time as such digits. */
QByteArray fileTime(const QString &path);

/**
 * A local folder to mirror into, two levels deep in a folder of its own.
 *
 * Beside it and above it lie files and a folder that no run has any business with, and harm() tells
 * whether one has touched them.
 */
class LocalFolder
{
public:
    explicit LocalFolder(const QStringList &lines = {});

    QString path() const { return area.filePath(QStringLiteral("above/local")); }
    QString filePath(const QString &name) const { return path() + QLatin1Char('/') + name; }
    /** There are "canary.txt", "canary/inner.txt", "canary/deep/innermost.txt", "local.canary/inner.txt". */
    QString besidePath(const QString &name) const { return area.filePath(QStringLiteral("above/") + name); }

    QStringList read() const { return treeLines(path()); }

    /** What has changed outside of the local folder; empty if nothing. */
    QString harm() const;

private:
    QStringList outside() const;

    QTemporaryDir area;
    QStringList untouched;
};

/**
 * Makes a folder unwritable as long as it lives, also for a test that runs as root: that one becomes
 * an ordinary user meanwhile.
 */
class UnwritableFolder
{
public:
    explicit UnwritableFolder(const QString &folderPath);
    ~UnwritableFolder();
    Q_DISABLE_COPY_MOVE(UnwritableFolder)

private:
    QString path;
    bool wasRoot = false;
};
