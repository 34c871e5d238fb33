#pragma once

#include <QString>
#include <QTemporaryDir>

/**
 * A home of its own for the settings, so that no test sees or harms the user's.
 *
 * To be made before the application object: what is looked up of the environment is looked up
 * only once.
 */
class TestSettings
{
public:
    TestSettings();

    /** The settings file, whether it exists or not. */
    QString filePath() const;

    /** Replaces the settings file by this text. */
    void write(const QByteArray &text) const;

    /** The settings file's bytes; empty if there is none. */
    QByteArray read() const;

    /** Deletes the settings file. */
    void clear() const;

private:
    QTemporaryDir home;
};
