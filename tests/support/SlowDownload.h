#pragma once

#include "support/FtpScriptServer.h"

#include <atomic>

/**
 * Serves one session in which nothing but "/texts/new.txt" is downloaded, and that so slowly that
 * there is always time to be in the middle of it. The first 320,000 bytes come at once.
 */
class SlowDownload
{
public:
    SlowDownload() : server(script()) {}
    ~SlowDownload() { isEnough = true; }
    Q_DISABLE_COPY_MOVE(SlowDownload)

    quint16 port() const { return server.port(); }

private:
    FtpScript script();

    std::atomic<bool> isEnough = false; ///< the rest may come at once
    FtpScriptServer server;
};
