// The parsers of FtpClient. A listing may have millions of lines, so they match by hand, in one pass
// from left to right; the expressions in the comments say what they accept, to the character.

#include "ftp/FtpClient.h"

#include <QStringTokenizer>

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr QByteArrayView kByteOrderMark = "\xEF\xBB\xBF";
constexpr qsizetype kTimevalDigits = 14;
constexpr qsizetype kRights = 9;
constexpr qsizetype kSafeDigits = 18; ///< any number of so many digits has room in 64 bits

/** The `\d` of an expression: a digit of ASCII, no other. */
bool isDigit(QChar c) { return c >= u'0' && c <= u'9'; }

/** The `\s` of an expression: white space of ASCII, no other. Only trimming knows that of Unicode. */
bool isBlank(QChar c) { return c == u' ' || (c >= u'\t' && c <= u'\r'); }

/** Whether `text` is made of digits: `\d{least,most}`. */
bool areDigits(QStringView text, qsizetype least, qsizetype most)
{
    return text.size() >= least && text.size() <= most && std::all_of(text.begin(), text.end(), isDigit);
}

bool isNumber(QStringView text) { return areDigits(text, 1, text.size()); }

/** The value of a few digits. */
qint64 valueOf(QStringView digits)
{
    qint64 value = 0;
    for (const QChar digit : digits)
        value = value * 10 + (digit.unicode() - u'0');
    return value;
}

/** A size in bytes; 0 if it cannot be read. */
qint64 sizeFrom(QStringView text)
{
    return areDigits(text, 1, kSafeDigits) ? valueOf(text) : text.toLongLong();
}

bool isEntryName(QStringView name) { return !name.isEmpty() && name != u"." && name != u".."; }

/** A line as text. The decoder drops a mark in front of each, which is one in front of a listing alone. */
QString decoded(QByteArrayView line)
{
    const QString text = QString::fromUtf8(line);
    return line.startsWith(kByteOrderMark) ? QChar(QChar::ByteOrderMark) + text : text;
}

/** Calls `use` with every line that is not empty. Lines end in LF or CR LF. */
template <typename Function>
void forEachLine(QByteArrayView data, Function use)
{
    if (data.startsWith(kByteOrderMark))
        data = data.sliced(kByteOrderMark.size());
    while (!data.isEmpty()) {
        const qsizetype feed = data.indexOf('\n');
        QByteArrayView line = feed < 0 ? data : data.first(feed);
        data = data.sliced(feed < 0 ? data.size() : feed + 1);
        if (line.endsWith('\r'))
            line.chop(1);
        if (!line.isEmpty())
            use(decoded(line));
    }
}

// MLSD

/** In small letters, as far as those of ASCII go. Beyond it, only the Kelvin sign becomes one of them. */
QChar lowered(QChar c)
{
    if (c >= u'A' && c <= u'Z')
        return QChar(c.unicode() - u'A' + u'a');
    return c == u'\u212A' ? QChar(u'k') : c;
}

/** Whether `text`, in small letters, starts with `word`, which is ASCII in small letters. */
bool startsWithWord(QStringView text, QStringView word)
{
    return text.size() >= word.size() && std::equal(word.begin(), word.end(), text.begin(),
                                                    [](QChar a, QChar b) { return a == lowered(b); });
}

bool isWord(QStringView text, QStringView word)
{
    return text.size() == word.size() && startsWithWord(text, word);
}

QDateTime timeFrom(QStringView text)
{
    const QStringView digits = text.left(kTimevalDigits);
    if (!areDigits(digits, kTimevalDigits, kTimevalDigits))
        return {};
    const auto number = [digits](qsizetype from, qsizetype length) {
        return static_cast<int>(valueOf(digits.sliced(from, length)));
    };
    // Date and time are put together in UTC at once: as local time, those inside a spring-forward gap
    // would count as invalid.
    const QDate date(number(0, 4), number(4, 2), number(6, 2));
    const QTime time(number(8, 2), number(10, 2), number(12, 2));
    return date.isValid() && time.isValid() ? QDateTime(date, time, Qt::UTC) : QDateTime();
}

/** Takes over an MLSD type. False if it marks the listed folder or its parent, which are no entries. */
bool applyType(QStringView type, FtpEntry *entry)
{
    if (isWord(type, u"cdir") || isWord(type, u"pdir"))
        return false;
    entry->isDir = isWord(type, u"dir");
    entry->isSymlink = startsWithWord(type, u"os.unix=slink");
    return true;
}

bool parseMlsdLine(QStringView line, FtpEntry *entry)
{
    const qsizetype blank = line.indexOf(u' ');
    if (blank < 0)
        return false;
    const QStringView name = line.sliced(blank + 1).trimmed();
    if (!isEntryName(name))
        return false;
    for (const QStringView fact : qTokenize(line.first(blank), u';', Qt::SkipEmptyParts)) {
        const qsizetype equals = fact.indexOf(u'=');
        if (equals < 0)
            continue;
        const QStringView key = fact.first(equals).trimmed();
        const QStringView value = fact.sliced(equals + 1).trimmed();
        if (isWord(key, u"type") && !applyType(value, entry))
            return false;
        if (isWord(key, u"size"))
            entry->size = sizeFrom(value);
        else if (isWord(key, u"modify"))
            entry->modified = timeFrom(value);
    }
    entry->name = name.toString();
    return true;
}

// LIST

qsizetype blanksInFront(QStringView text)
{
    return std::find_if_not(text.begin(), text.end(), isBlank) - text.begin();
}

/** Cuts the first word off `rest`: `\S*`. */
QStringView takeWord(QStringView *rest)
{
    const qsizetype end = std::find_if(rest->begin(), rest->end(), isBlank) - rest->begin();
    const QStringView word = rest->first(end);
    *rest = rest->sliced(end);
    return word;
}

/** Cuts blanks and the word behind them off `rest`: `\s+(\S+)`. Empty if one of the two is missing. */
QStringView takeColumn(QStringView *rest)
{
    const qsizetype blanks = blanksInFront(*rest);
    if (blanks == 0)
        return {};
    *rest = rest->sliced(blanks);
    return takeWord(rest);
}

/** Reads the name at the end of a line: `\s+(.+)$`. */
bool readName(QStringView rest, QString *name)
{
    if (rest.endsWith(u'\n'))
        rest.chop(1);
    // Of nothing but blanks, the last one is the name.
    const qsizetype start = std::min(blanksInFront(rest), rest.size() - 1);
    if (start < 1 || rest.sliced(start).contains(u'\n'))
        return false;
    *name = rest.sliced(start).trimmed().toString();
    return true;
}

/** `[-dl][rwxstST-]{9}[.+@]?` */
bool isTypeAndRights(QStringView text)
{
    const auto isRight = [](QChar c) { return QStringView(u"rwxstST-").contains(c); };
    if (text.size() < 1 + kRights || text.size() > 2 + kRights || !QStringView(u"-dl").contains(text.front()))
        return false;
    const QStringView rights = text.sliced(1, kRights);
    const QStringView sign = text.sliced(1 + kRights);
    return std::all_of(rights.begin(), rights.end(), isRight) &&
           (sign.isEmpty() || QStringView(u".+@").contains(sign.front()));
}

/** `\S{3}` of a word. Letters beyond 16 bits count once. */
bool isMonth(QStringView word)
{
    return std::count_if(word.begin(), word.end(), [](QChar c) { return !c.isLowSurrogate(); }) == 3;
}

/** `\d{1,2}:\d{2}` */
bool isClockTime(QStringView text)
{
    return text.size() >= 3 && text.at(text.size() - 3) == u':' && areDigits(text.chopped(3), 1, 2) &&
           areDigits(text.last(2), 2, 2);
}

/** `[AaPp][Mm]` */
bool isHalfDay(QStringView text) { return isWord(text, u"am") || isWord(text, u"pm"); }

/** `\d{2}-\d{2}-\d{2,4}` */
bool isDosDate(QStringView text)
{
    return text.size() >= 8 && areDigits(text.first(2), 2, 2) && text.at(2) == u'-' &&
           areDigits(text.sliced(3, 2), 2, 2) && text.at(5) == u'-' && areDigits(text.sliced(6), 2, 4);
}

/** `\s+\d{1,2}:\d{2}\s*[AaPp][Mm]` */
bool takeDosTime(QStringView *rest)
{
    const QStringView time = takeColumn(rest);
    if (isClockTime(time))
        return isHalfDay(takeColumn(rest));
    return time.size() > 2 && isClockTime(time.chopped(2)) && isHalfDay(time.last(2));
}

/** What follows the owners: `\s+(\d+)\s+(\S{3}\s+\d{1,2}\s+(?:\d{4}|\d{1,2}:\d{2}))\s+(.+)$` */
bool readSizeAndName(QStringView rest, FtpEntry *entry)
{
    const QStringView size = takeColumn(&rest);
    if (!isNumber(size) || !isMonth(takeColumn(&rest)) || !areDigits(takeColumn(&rest), 1, 2))
        return false;
    const QStringView yearOrTime = takeColumn(&rest);
    if ((!areDigits(yearOrTime, 4, 4) && !isClockTime(yearOrTime)) || !readName(rest, &entry->name))
        return false;
    // The date is in the server's own time zone and without a year or a time: no use to compare by.
    entry->size = sizeFrom(size);
    return true;
}

/** `[-dl][rwxstST-]{9}[.+@]?\s+\d+\s+\S+(?:\s+\S+)?`, then size, date and name. */
bool readUnixLine(QStringView rest, FtpEntry *entry)
{
    const QStringView rights = takeWord(&rest);
    if (!isTypeAndRights(rights) || !isNumber(takeColumn(&rest)) || takeColumn(&rest).isEmpty())
        return false;
    QStringView behindGroup = rest;
    takeColumn(&behindGroup);
    if (!readSizeAndName(behindGroup, entry) && !readSizeAndName(rest, entry))
        return false;
    entry->isDir = rights.front() == u'd';
    entry->isSymlink = rights.front() == u'l';
    const qsizetype arrow = entry->isSymlink ? entry->name.indexOf(u" -> "_s) : -1;
    if (arrow > 0)
        entry->name = entry->name.first(arrow).trimmed();
    return true;
}

/** `^(\d{2}-\d{2}-\d{2,4})\s+(\d{1,2}:\d{2}\s*[AaPp][Mm])\s+(<DIR>|\d+)\s+(.+)$` */
bool readDosLine(QStringView rest, FtpEntry *entry)
{
    if (!isDosDate(takeWord(&rest)) || !takeDosTime(&rest))
        return false;
    const QStringView size = takeColumn(&rest);
    const bool isDir = size == u"<DIR>";
    if ((!isDir && !isNumber(size)) || !readName(rest, &entry->name))
        return false;
    entry->isDir = isDir;
    entry->size = isDir ? -1 : sizeFrom(size);
    return true;
}

} // namespace

QList<FtpEntry> FtpClient::parseMlsd(const QByteArray &data)
{
    QList<FtpEntry> entries;
    forEachLine(data, [&entries](const QString &line) {
        FtpEntry entry;
        if (parseMlsdLine(line, &entry))
            entries.append(std::move(entry));
    });
    return entries;
}

QList<FtpEntry> FtpClient::parseList(const QByteArray &data)
{
    QList<FtpEntry> entries;
    forEachLine(data, [&entries](const QString &line) {
        FtpEntry entry;
        if (!line.startsWith(u"total ") && (readUnixLine(line, &entry) || readDosLine(line, &entry)) &&
            isEntryName(entry.name))
            entries.append(std::move(entry));
    });
    return entries;
}

bool FtpClient::parseUnixLine(const QString &line, FtpEntry *entry)
{
    return line.isValidUtf16() && readUnixLine(line, entry);
}

bool FtpClient::parseDosLine(const QString &line, FtpEntry *entry)
{
    return line.isValidUtf16() && readDosLine(line, entry);
}

QDateTime FtpClient::parseTimeval(const QString &text) { return timeFrom(text); }
