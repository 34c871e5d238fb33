#pragma once

#include "ftp/FtpClient.h"

/**
 * The parsers of FtpClient once more, written with regular expressions: slow, but plainly right. What
 * they make of a listing is what those must make of it, to the last field.
 */
namespace reference {

QList<FtpEntry> parseMlsd(const QByteArray &data);
QList<FtpEntry> parseList(const QByteArray &data);
bool parseUnixLine(const QString &line, FtpEntry *entry);
bool parseDosLine(const QString &line, FtpEntry *entry);
QDateTime parseTimeval(const QString &text);

/** Also in whether they are valid, and by which clock. */
bool isSame(const QDateTime &a, const QDateTime &b);
bool isSame(const FtpEntry &a, const FtpEntry &b);

} // namespace reference
