#include "Check.h"

#include "update/UpdateChecker.h"

using namespace Qt::StringLiterals;

// The input is up to three versions, one a line.
int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QList<QByteArray> lines = inputBytes(data, size).split('\n');
    const QString a = QString::fromUtf8(lines.value(0));
    const QString b = QString::fromUtf8(lines.value(1));
    const QString c = QString::fromUtf8(lines.value(2));
    const auto compare = UpdateChecker::compareVersions;

    const int ab = compare(a, b);
    check(ab >= -1 && ab <= 1, "the answer is -1, 0 or 1");
    check(compare(b, a) == -ab, "the other way round the answer is the opposite");
    check(compare(a, a) == 0, "a version is as new as itself");
    if (ab <= 0 && compare(b, c) <= 0)
        check(compare(a, c) <= 0, "what is not newer than b is not newer than what b is not newer than");
    check(compare(a, u" "_s + a.trimmed() + u'\t') == 0, "blanks around do not count");
    check(compare(a.trimmed(), a.trimmed() + u".0.x"_s) == 0, "zeros at the end do not count");
    check(compare(a.trimmed(), a.trimmed() + u".0.1"_s) == -1, "another number at the end does");
    return 0;
}
