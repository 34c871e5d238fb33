#pragma once

#include <QString>

class QUrl;

/** What to do with the words of an update service, which is a stranger. */

/**
 * The text as it can stand in the midst of our own words: without line breaks and marks that turn
 * the direction of what is around it, and of bounded length. Still to be shown as plain text.
 */
QString oneLine(const QString &text);

/** The text, cut to what can be laid out without holding up the window. */
QString boundedText(const QString &text);

/** Whether it is a browser that opens the address. */
bool isWebAddress(const QUrl &address);
