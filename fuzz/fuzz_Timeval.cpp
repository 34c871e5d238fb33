#include "Check.h"

#include "ftp/FtpClient.h"

using namespace Qt::StringLiterals;

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QString text = QString::fromUtf8(inputBytes(data, size));
    const QDateTime time = FtpClient::parseTimeval(text);
    check(time == FtpClient::parseTimeval(text.left(14)), "only the first 14 characters count");
    if (!time.isValid())
        return 0;
    check(time.timeSpec() == Qt::UTC, "a time is in UTC");
    check(time.toString(u"yyyyMMddHHmmss"_s) == text.left(14), "a time is written as it was read");
    return 0;
}
