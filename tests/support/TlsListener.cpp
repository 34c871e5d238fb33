#include "support/TlsListener.h"

#include <QFile>
#include <QNetworkProxy>
#include <QProcess>
#include <QSslCertificate>
#include <QSslKey>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

const QSslConfiguration &serverTls()
{
    static const QSslConfiguration made = [] {
        const QTemporaryDir folder;
        QFile key(folder.filePath(u"key.pem"_s));
        QFile certificate(folder.filePath(u"certificate.pem"_s));
        QProcess openssl;
        openssl.start(u"openssl"_s, {u"req"_s, u"-x509"_s, u"-newkey"_s, u"ec"_s, u"-pkeyopt"_s,
                                     u"ec_paramgen_curve:prime256v1"_s, u"-nodes"_s, u"-keyout"_s,
                                     key.fileName(), u"-out"_s, certificate.fileName(), u"-days"_s, u"2"_s,
                                     u"-subj"_s, u"/CN=localhost"_s});
        if (!openssl.waitForFinished() || !key.open(QIODevice::ReadOnly) ||
            !certificate.open(QIODevice::ReadOnly))
            qFatal("openssl made no certificate: %s", openssl.readAllStandardError().constData());
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setPrivateKey(QSslKey(&key, QSsl::Ec));
        configuration.setLocalCertificate(QSslCertificate(&certificate));
        configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
        return configuration;
    }();
    return made;
}

bool hasGone(const QSslSocket &socket)
{
    return socket.state() != QAbstractSocket::ConnectedState ||
           socket.error() == QAbstractSocket::RemoteHostClosedError;
}

TlsListener::TlsListener(const QSslConfiguration &configuration) : tls(configuration)
{
    setProxy(QNetworkProxy::NoProxy);
}

std::unique_ptr<QSslSocket> TlsListener::take()
{
    auto *socket = static_cast<QSslSocket *>(nextPendingConnection());
    if (socket)
        socket->setParent(nullptr);
    return std::unique_ptr<QSslSocket>(socket);
}

void TlsListener::incomingConnection(qintptr descriptor)
{
    auto *socket = new QSslSocket(this);
    socket->setSocketDescriptor(descriptor);
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    socket->setSslConfiguration(tls);
    addPendingConnection(socket);
}
