#include "model/SettingsStore.h"

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>
#include <cctype>
#include <optional>

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
    constexpr qsizetype kTypeBytes = 4;
    for (const QByteArrayView mark : {QByteArrayView("@DateTime("), QByteArrayView("@Variant(")}) {
        if (!value.startsWith(mark))
            continue;
        const qsizetype typeSize = std::min(value.size() - mark.size(), kTypeBytes);
        const QByteArrayView type = value.sliced(mark.size(), typeSize);
        return type != QByteArrayView("\0\0\0\x10", kTypeBytes) &&
               type != QByteArrayView("\0\0\0\xf", kTypeBytes);
    }
    return false;
}

/** The bytes of a line end: one, or two that differ; 0 if there is none. */
qsizetype lineEndSize(QByteArrayView text, qsizetype at)
{
    const auto isLineEnd = [text](qsizetype i) {
        return i < text.size() && (text.at(i) == '\n' || text.at(i) == '\r');
    };
    if (!isLineEnd(at))
        return 0;
    return isLineEnd(at + 1) && text.at(at + 1) != text.at(at) ? 2 : 1;
}

/** -1 if it is none. */
int digitOf(char c, int base)
{
    constexpr QByteArrayView kDigits = "0123456789abcdef";
    const qsizetype digit = kDigits.indexOf(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    return digit < base ? static_cast<int>(digit) : -1;
}

/** Reads the number of an escape, as QSettings does: of any length, in 16 bits. */
char escapedNumber(QByteArrayView text, qsizetype *at, int base)
{
    quint16 number = 0;
    for (; *at < text.size() && digitOf(text.at(*at), base) >= 0; ++*at)
        number = static_cast<quint16>(number * base + digitOf(text.at(*at), base));
    return number < 0x80 ? static_cast<char>(number) : '?'; // which no mark and no type has
}

/** Reads an escape from behind its backslash; nothing if it stands for nothing. */
std::optional<char> escaped(QByteArrayView text, qsizetype *at)
{
    constexpr QByteArrayView kNames = "abfnrtv\"?'\\";
    constexpr QByteArrayView kMeanings = "\a\b\f\n\r\t\v\"?'\\";
    const char c = text.at(*at);
    if (digitOf(c, 8) >= 0)
        return escapedNumber(text, at, 8);
    const qsizetype continued = lineEndSize(text, *at);
    *at += std::max<qsizetype>(continued, 1);
    if (c == 'x' && *at < text.size() && digitOf(text.at(*at), 16) >= 0)
        return escapedNumber(text, at, 16);
    const qsizetype known = kNames.indexOf(c);
    return known < 0 ? std::nullopt : std::optional(kMeanings.at(known));
}

/** Whether a part of a list is unsafe, once its escapes and quotes are resolved as QSettings does. */
bool holdsUnsafeValue(QByteArrayView list)
{
    constexpr qsizetype kTellingBytes = 14; // the longer mark, and the type
    QByteArray value;
    bool isQuoted = false;
    bool skipsBlanks = true;
    for (qsizetype i = 0; i < list.size();) {
        const char c = list.at(i++);
        if (skipsBlanks && (c == ' ' || c == '\t'))
            continue;
        skipsBlanks = false;
        std::optional<char> meant;
        if (c == '\\') {
            meant = i < list.size() ? escaped(list, &i) : std::nullopt;
        } else if (c == '"') {
            isQuoted = !isQuoted;
            skipsBlanks = !isQuoted;
        } else if (c == ',' && !isQuoted) {
            if (isUnsafe(value))
                return true;
            value.clear();
            skipsBlanks = true;
        } else {
            meant = c;
        }
        if (meant && value.size() < kTellingBytes)
            value += *meant;
    }
    return isUnsafe(value);
}

/** A key and its value: a line, unless quotes or a backslash carry it on over the next ones. */
struct Entry
{
    qsizetype equals = -1;
    qsizetype lineEnd = -1; ///< where its first line ends, be it within quotes
    qsizetype end = 0;
};

Entry entryAt(QByteArrayView file, qsizetype begin)
{
    Entry entry;
    bool isQuoted = false;
    bool isComment = false;
    bool isBlank = true;
    qsizetype i = begin;
    while (i < file.size()) {
        const char c = file.at(i);
        const qsizetype lineEnd = lineEndSize(file, i);
        if (lineEnd > 0) {
            i += lineEnd;
            if (entry.lineEnd < 0)
                entry.lineEnd = i;
            if (!isQuoted)
                break;
            continue;
        }
        if (c == ';' && !isQuoted && !isComment) {
            if (!isBlank)
                break; // a comment behind it, which is an entry of its own
            isComment = true;
        }
        isBlank = isBlank && (c == ' ' || c == '\t');
        ++i;
        if (isComment)
            continue;
        if (c == '\\' && i < file.size())
            i += std::max<qsizetype>(lineEndSize(file, i), 1);
        else if (c == '"')
            isQuoted = !isQuoted;
        else if (c == '=' && !isQuoted && entry.equals < 0)
            entry.equals = i - 1;
    }
    entry.end = i;
    if (entry.lineEnd < 0)
        entry.lineEnd = i;
    return entry;
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

void ensureSettingsFile()
{
#ifdef Q_OS_UNIX // elsewhere the user's folder is closed to others as it is
    const QString path = storePath();
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    static_cast<void>(file.open(QIODevice::WriteOnly | QIODevice::NewOnly,
                                QFileDevice::ReadOwner | QFileDevice::WriteOwner));
#endif
}

QByteArray withoutUnsafeLines(const QByteArray &file)
{
    QByteArray safe;
    safe.reserve(file.size());
    for (qsizetype begin = 0; begin < file.size();) {
        const QByteArrayView text(file);
        const Entry entry = entryAt(text, begin);
        const bool isUnsafeEntry =
            entry.equals >= 0 && holdsUnsafeValue(text.first(entry.end).sliced(entry.equals + 1));
        // A quote that is never closed must not take the rest of the file with it.
        const qsizetype end = isUnsafeEntry ? entry.lineEnd : entry.end;
        if (!isUnsafeEntry)
            safe += text.first(end).sliced(begin);
        begin = end;
    }
    return safe;
}
