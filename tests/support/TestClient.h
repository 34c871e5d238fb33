#pragma once

#include "ftp/FtpClient.h"
#include "support/FtpScriptServer.h"

#include <QStringList>

#include <functional>

/** An FtpClient that keeps its log and lets a test act at an exact line of it. */
class TestClient : public FtpClient
{
    Q_OBJECT

public:
    TestClient();

    /** As kim, password secret; see FtpScript::login(). */
    bool login(const FtpScriptServer &server);

    /** Calls `action` at each log line that begins so; a command is logged just before it is sent. */
    void whenLogged(const QString &beginning, const std::function<void()> &action);

    /** From such a line on, a wait lasts no longer than this. Does nothing for an empty text. */
    void hurryFrom(const QString &beginning, int milliseconds = 100);

    /** Whether the one failure so far has this beginning and a reason behind it, in whose words ever. */
    bool hasFailedOnceWith(const QString &beginning) const;

    QStringList log() const { return lines; }
    QStringList errors() const; ///< what fail() logged, without "ERROR: "

private:
    QStringList lines;
};
