#pragma once

#include "Check.h"

#include "ftp/FtpClient.h"

#include <algorithm>

inline bool isSame(const FtpEntry &a, const FtpEntry &b)
{
    return a.name == b.name && a.isDir == b.isDir && a.isSymlink == b.isSymlink && a.size == b.size &&
           a.modified == b.modified;
}

inline bool isSame(const QList<FtpEntry> &a, const QList<FtpEntry> &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const FtpEntry &x, const FtpEntry &y) { return isSame(x, y); });
}

inline void checkEntry(const FtpEntry &entry)
{
    check(!entry.name.isEmpty(), "an entry has a name");
    check(entry.name != QStringLiteral(".") && entry.name != QStringLiteral(".."),
          "the folder and its parent are no entries");
    check(entry.name == entry.name.trimmed(), "a name has no blanks around it");
    check(!entry.name.contains(QLatin1Char('\n')), "a name has no line feed");
    check(!(entry.isDir && entry.isSymlink), "a link is no folder");
    check(!entry.modified.isValid() || entry.modified.timeSpec() == Qt::UTC, "times are in UTC");
}

/** What holds for every listing, whatever its form. */
inline void checkListing(const QByteArray &listing, QList<FtpEntry> (*parse)(const QByteArray &))
{
    const QList<FtpEntry> entries = parse(listing);
    check(entries.size() <= listing.count('\n') + 1, "no line has two entries");
    for (const FtpEntry &entry : entries)
        checkEntry(entry);

    // A byte order mark counts in front of a listing alone, so a part must not begin with one.
    const qsizetype border = listing.indexOf('\n', listing.size() / 2) + 1;
    const QByteArray rest = listing.sliced(border);
    if (!rest.startsWith("\xEF\xBB\xBF"))
        check(isSame(parse(listing.first(border)) + parse(rest), entries), "each line stands for itself");

    QByteArray withReturns = listing;
    withReturns.replace("\r", "").replace("\n", "\r\n");
    QByteArray withoutReturns = listing;
    withoutReturns.replace("\r", "");
    check(isSame(parse(withReturns), parse(withoutReturns)), "either end of a line will do");
}
