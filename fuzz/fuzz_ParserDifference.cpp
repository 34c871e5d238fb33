#include "Check.h"
#include "ReferenceParsers.h"

#include <algorithm>

namespace {

void compareListings(const QList<FtpEntry> &entries, const QList<FtpEntry> &expected)
{
    const auto same = [](const FtpEntry &a, const FtpEntry &b) { return reference::isSame(a, b); };
    check(std::equal(entries.begin(), entries.end(), expected.begin(), expected.end(), same),
          "a listing has the entries of the reference");
}

void compareLines(bool (*parse)(const QString &, FtpEntry *),
                  bool (*parseReference)(const QString &, FtpEntry *), const QString &line)
{
    FtpEntry entry;
    FtpEntry expected;
    check(parse(line, &entry) == parseReference(line, &expected), "a line has the form of the reference");
    check(reference::isSame(entry, expected), "a line has the entry of the reference");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray bytes = inputBytes(data, size);
    compareListings(FtpClient::parseMlsd(bytes), reference::parseMlsd(bytes));
    compareListings(FtpClient::parseList(bytes), reference::parseList(bytes));

    // As a line stands, and with units that no decoder makes.
    const QString text = QString::fromUtf8(bytes);
    const QString units(reinterpret_cast<const QChar *>(bytes.constData()), bytes.size() / 2);
    for (const QString &line : {text, units}) {
        compareLines(FtpClient::parseUnixLine, reference::parseUnixLine, line);
        compareLines(FtpClient::parseDosLine, reference::parseDosLine, line);
        check(reference::isSame(FtpClient::parseTimeval(line), reference::parseTimeval(line)),
              "a time is that of the reference");
    }
    return 0;
}
