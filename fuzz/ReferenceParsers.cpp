#include "ReferenceParsers.h"

#include <QRegularExpression>
#include <QStringTokenizer>
#include <QTimeZone>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kTimevalDigits = 14;

bool isEntryName(QStringView name) { return !name.isEmpty() && name != u"." && name != u".."; }

/** Calls `use` with every line that is not empty. Lines end in LF or CR LF. */
template <typename Function>
void forEachLine(const QByteArray &data, Function use)
{
    const QString text = QString::fromUtf8(data);
    for (QStringView line : qTokenize(text, u'\n', Qt::SkipEmptyParts)) {
        if (line.endsWith(u'\r'))
            line.chop(1);
        if (!line.isEmpty())
            use(line);
    }
}

/** Takes over an MLSD type. False if it marks the listed folder or its parent, which are no entries. */
bool applyType(QStringView value, FtpEntry *entry)
{
    const QString type = value.toString().toLower();
    if (type == u"cdir" || type == u"pdir")
        return false;
    entry->isDir = type == u"dir";
    entry->isSymlink = type.startsWith(u"os.unix=slink");
    return true;
}

bool parseMlsdLine(QStringView line, FtpEntry *entry)
{
    const qsizetype blank = line.indexOf(u' ');
    if (blank < 0)
        return false;
    entry->name = line.mid(blank + 1).trimmed().toString();
    if (!isEntryName(entry->name))
        return false;
    for (const QStringView fact : qTokenize(line.left(blank), u';', Qt::SkipEmptyParts)) {
        const qsizetype equals = fact.indexOf(u'=');
        if (equals < 0)
            continue;
        const QString key = fact.left(equals).trimmed().toString().toLower();
        const QStringView value = fact.mid(equals + 1).trimmed();
        if (key == u"type" && !applyType(value, entry))
            return false;
        if (key == u"size")
            entry->size = value.toLongLong();
        else if (key == u"modify")
            entry->modified = reference::parseTimeval(value.toString());
    }
    return true;
}

} // namespace

bool reference::isSame(const QDateTime &a, const QDateTime &b)
{
    return a == b && a.isValid() == b.isValid() && a.timeSpec() == b.timeSpec();
}

bool reference::isSame(const FtpEntry &a, const FtpEntry &b)
{
    return a.name == b.name && a.isDir == b.isDir && a.isSymlink == b.isSymlink && a.size == b.size &&
           isSame(a.modified, b.modified);
}

QList<FtpEntry> reference::parseMlsd(const QByteArray &data)
{
    QList<FtpEntry> entries;
    forEachLine(data, [&entries](QStringView line) {
        FtpEntry entry;
        if (parseMlsdLine(line, &entry))
            entries.append(entry);
    });
    return entries;
}

QList<FtpEntry> reference::parseList(const QByteArray &data)
{
    QList<FtpEntry> entries;
    forEachLine(data, [&entries](QStringView view) {
        if (view.startsWith(u"total "))
            return;
        const QString line = view.toString();
        FtpEntry entry;
        if ((parseUnixLine(line, &entry) || parseDosLine(line, &entry)) && isEntryName(entry.name))
            entries.append(entry);
    });
    return entries;
}

bool reference::parseUnixLine(const QString &line, FtpEntry *entry)
{
    static const QRegularExpression form(
        u"^([-dl])[rwxstST-]{9}[.+@]?\\s+\\d+\\s+\\S+(?:\\s+\\S+)?\\s+(\\d+)\\s+"
        "(\\S{3}\\s+\\d{1,2}\\s+(?:\\d{4}|\\d{1,2}:\\d{2}))\\s+(.+)$"_s);
    const QRegularExpressionMatch match = form.match(line);
    if (!match.hasMatch())
        return false;
    const QString type = match.captured(1);
    entry->isDir = type == u"d";
    entry->isSymlink = type == u"l";
    entry->size = match.captured(2).toLongLong();
    // The date is in the server's own time zone and without a year or a time: no use to compare by.
    entry->name = match.captured(4).trimmed();
    const qsizetype arrow = entry->name.indexOf(u" -> "_s);
    if (entry->isSymlink && arrow > 0)
        entry->name = entry->name.first(arrow).trimmed();
    return true;
}

bool reference::parseDosLine(const QString &line, FtpEntry *entry)
{
    static const QRegularExpression form(
        u"^(\\d{2}-\\d{2}-\\d{2,4})\\s+(\\d{1,2}:\\d{2}\\s*[AaPp][Mm])\\s+(<DIR>|\\d+)\\s+(.+)$"_s);
    const QRegularExpressionMatch match = form.match(line);
    if (!match.hasMatch())
        return false;
    entry->isDir = match.captured(3) == u"<DIR>";
    entry->size = entry->isDir ? -1 : match.captured(3).toLongLong();
    entry->name = match.captured(4).trimmed();
    return true;
}

QDateTime reference::parseTimeval(const QString &text)
{
    const QStringView digits = QStringView(text).left(kTimevalDigits);
    const auto isDigit = [](QChar c) { return c >= u'0' && c <= u'9'; };
    if (digits.size() < kTimevalDigits || !std::all_of(digits.begin(), digits.end(), isDigit))
        return {};
    const auto number = [digits](qsizetype from, qsizetype length) {
        return digits.mid(from, length).toInt();
    };
    // Date and time are put together in UTC at once: as local time, those inside a spring-forward gap
    // would count as invalid.
    const QDate date(number(0, 4), number(4, 2), number(6, 2));
    const QTime time(number(8, 2), number(10, 2), number(12, 2));
    return date.isValid() && time.isValid() ? QDateTime(date, time, QTimeZone::utc()).toUTC() : QDateTime();
}
