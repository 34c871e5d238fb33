#include "support/TestClient.h"

using namespace Qt::StringLiterals;

TestClient::TestClient()
{
    setTimeoutMs(10000); // a test that waits for this long has failed anyway
    connect(this, &FtpClient::logMessage, this, [this](const QString &line) { lines += line; });
}

bool TestClient::login(const FtpScriptServer &server)
{
    return connectAndLogin(u"127.0.0.1"_s, server.port(), u"kim"_s, u"secret"_s);
}

void TestClient::whenLogged(const QString &beginning, const std::function<void()> &action)
{
    connect(this, &FtpClient::logMessage, this, [beginning, action](const QString &line) {
        if (line.startsWith(beginning))
            action();
    });
}

void TestClient::hurryFrom(const QString &beginning, int milliseconds)
{
    if (!beginning.isEmpty())
        whenLogged(beginning, [this, milliseconds] { setTimeoutMs(milliseconds); });
}

QStringList TestClient::errors() const
{
    QStringList found;
    for (const QString &line : lines) {
        if (line.startsWith(u"ERROR: "))
            found += line.sliced(7);
    }
    return found;
}

bool TestClient::hasFailedOnceWith(const QString &beginning) const
{
    return errors() == QStringList(lastError()) && lastError().startsWith(beginning) &&
           lastError().size() > beginning.size() && !lastError().endsWith(u"Unknown error");
}
