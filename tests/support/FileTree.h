#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QMap>
#include <QString>

/** A file as a test wants it or found it. */
struct TreeFile
{
    QByteArray content = {};
    QDateTime modified = {};
};

/** Files by their paths below a folder. A path that ends in "/" is an empty folder. */
using FileTree = QMap<QString, TreeFile>;

/** Puts these files into the folder, over those of the same paths. */
void writeTree(const QString &folder, const FileTree &tree);

/** All that is in the folder, hidden files included. */
FileTree readTree(const QString &folder);

/** Each path that is not the same in both, with what differs; times in whole seconds. Empty if none. */
QString treeDifference(const FileTree &expected, const FileTree &actual);
