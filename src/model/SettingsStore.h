#pragma once

#include <QSettings>

class QByteArray;

/**
 * The user's settings file. It is written when the object goes out of scope.
 *
 * Lines that are not safe to read are taken out of the file first; see withoutUnsafeLines().
 */
QSettings openSettingsStore();

/**
 * Makes an empty settings file for its owner alone, if there is none: it will hold passwords, and one
 * that QSettings makes can be read by everybody. A file that is there already keeps its permissions.
 */
void ensureSettingsFile();

/**
 * The text of a settings file without the lines that hold a binary value of an unexpected type.
 *
 * QSettings believes such a value's type and length, so that a wrong byte in a stored date can make
 * it ask for all memory there is. Only dates and times are ever stored in this form. Values are read
 * as QSettings reads them, since an escape or a quote in the wrong place hides what they are.
 */
QByteArray withoutUnsafeLines(const QByteArray &file);
