#include "update/ForeignText.h"

#include <QUrl>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kLineLength = 100;
constexpr qsizetype kTextLength = 20000; ///< the time to lay out a single word grows with its square
constexpr QChar kEllipsis = u'\u2026';

QString cut(const QString &text, qsizetype length)
{
    if (text.size() <= length)
        return text;
    const bool splitsPair = text.at(length - 1).isHighSurrogate();
    return text.first(splitsPair ? length - 1 : length) + kEllipsis;
}

bool breaksLine(QChar c) { return c.isSpace() || (!c.isPrint() && !c.isSurrogate()); }

} // namespace

QString oneLine(const QString &text)
{
    QString line = cut(text, kLineLength);
    std::replace_if(line.begin(), line.end(), breaksLine, u' ');
    return line;
}

QString boundedText(const QString &text) { return cut(text, kTextLength); }

bool isWebAddress(const QUrl &address)
{
    return address.isValid() && !address.host().isEmpty() &&
           (address.scheme() == "https"_L1 || address.scheme() == "http"_L1);
}
