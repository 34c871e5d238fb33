#pragma once

#include <QByteArray>
#include <QString>
#include <QTranslator>

/**
 * Puts every text that is translated in one context in square brackets.
 *
 * So a test sees in the result which pieces were looked up and which are fixed.
 */
class MarkingTranslator : public QTranslator
{
public:
    explicit MarkingTranslator(const QByteArray &markedContext = "QObject") : marked(markedContext) {}

    bool isEmpty() const override { return false; }

    QString translate(const char *context, const char *sourceText, const char *, int) const override
    {
        if (marked != context)
            return {};
        return QLatin1Char('[') + QString::fromUtf8(sourceText) + QLatin1Char(']');
    }

private:
    QByteArray marked;
};
