#pragma once

#include <QString>
#include <QTranslator>

/**
 * Puts every text that is translated in the context "QObject" in angle brackets.
 *
 * So a test sees in the result which pieces were looked up and which are fixed.
 */
class MarkingTranslator : public QTranslator
{
public:
    bool isEmpty() const override { return false; }

    QString translate(const char *context, const char *sourceText, const char *, int) const override
    {
        if (qstrcmp(context, "QObject") != 0)
            return {};
        return QLatin1Char('<') + QString::fromUtf8(sourceText) + QLatin1Char('>');
    }
};
