#include "Check.h"
#include "Listing.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray listing = inputBytes(data, size);
    checkListing(listing, FtpClient::parseList);
    for (const FtpEntry &entry : FtpClient::parseList(listing)) {
        check(!entry.modified.isValid(), "a line of this form has no time");
        check(entry.size >= (entry.isDir ? -1 : 0), "a file has a size");
    }

    const QString line = QString::fromUtf8(listing);
    FtpEntry unixEntry;
    FtpEntry dosEntry;
    const bool isUnix = FtpClient::parseUnixLine(line, &unixEntry);
    const bool isDos = FtpClient::parseDosLine(line, &dosEntry);
    check(!isUnix || !isDos, "no line has both forms");
    check(!(unixEntry.isDir && unixEntry.isSymlink) && !dosEntry.isSymlink, "a link is no folder");
    return 0;
}
