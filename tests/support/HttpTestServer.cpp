#include "support/HttpTestServer.h"

#include <QFile>
#include <QHostAddress>
#include <QNetworkProxy>
#include <QProcess>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

namespace {

constexpr int kEndlessChunk = 65536;

void runOpenssl(const QStringList &arguments)
{
    QProcess openssl;
    openssl.start(u"openssl"_s, arguments);
    if (!openssl.waitForFinished() || openssl.exitCode() != 0)
        qFatal("openssl made no certificate: %s", openssl.readAllStandardError().constData());
}

/** The test's own certificate authority, made once for the whole test program. */
class Authority
{
public:
    static const Authority &instance()
    {
        static const Authority made;
        return made;
    }

    QString certificatePath() const { return folder.filePath(u"authority.pem"_s); }
    QString keyPath() const { return folder.filePath(u"authority-key.pem"_s); }

    static QStringList newKey(const QString &path)
    {
        return {u"-newkey"_s, u"ec"_s,      u"-pkeyopt"_s, u"ec_paramgen_curve:prime256v1"_s,
                u"-nodes"_s,  u"-keyout"_s, path};
    }

private:
    Authority()
    {
        runOpenssl(QStringList{u"req"_s, u"-x509"_s, u"-days"_s, u"2"_s, u"-subj"_s, u"/CN=Test authority"_s,
                               u"-out"_s, certificatePath()} +
                   newKey(keyPath()));
    }

    QTemporaryDir folder;
};

} // namespace

HttpAnswer HttpAnswer::status(int code, const QByteArray &body, const QByteArray &moreHeaders)
{
    return raw("HTTP/1.1 " + QByteArray::number(code) + " as it is\r\nContent-Type: application/json\r\n" +
               moreHeaders + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body);
}

HttpTestServer::HttpTestServer()
{
    setProxy(QNetworkProxy::NoProxy);
    if (!listen(QHostAddress::LocalHost))
        qFatal("cannot listen on 127.0.0.1");
}

HttpTestServer::HttpTestServer(const QSslConfiguration &configuration) : HttpTestServer()
{
    tls = configuration;
    isSecure = true;
}

QUrl HttpTestServer::url(const QString &path) const
{
    return QUrl(
        u"%1://127.0.0.1:%2%3"_s.arg(isSecure ? u"https"_s : u"http"_s, QString::number(serverPort()), path));
}

QByteArray HttpTestServer::header(const QByteArray &name, qsizetype request) const
{
    const QByteArrayList lines = heads.value(request).split('\n');
    for (const QByteArray &line : lines) {
        const qsizetype colon = line.indexOf(':');
        if (line.first(qMax<qsizetype>(colon, 0)).compare(name, Qt::CaseInsensitive) == 0)
            return line.sliced(colon + 1).trimmed();
    }
    return {};
}

qsizetype HttpTestServer::connections() const
{
    qsizetype open = 0;
    for (const auto *socket : findChildren<QTcpSocket *>())
        open += socket->state() == QAbstractSocket::ConnectedState ? 1 : 0;
    return open;
}

void HttpTestServer::say(const QByteArray &bytes)
{
    for (auto *socket : findChildren<QTcpSocket *>())
        socket->write(bytes);
}

void HttpTestServer::hangUp()
{
    for (auto *socket : findChildren<QTcpSocket *>())
        socket->abort();
}

QSslConfiguration HttpTestServer::makeTls(const QString &altName, bool isCurrent)
{
    const QTemporaryDir folder;
    QFile key(folder.filePath(u"key.pem"_s));
    QFile certificate(folder.filePath(u"certificate.pem"_s));
    const QString request = folder.filePath(u"request.pem"_s);
    const Authority &authority = Authority::instance();
    runOpenssl(QStringList{u"req"_s, u"-new"_s, u"-subj"_s, u"/CN=localhost"_s, u"-addext"_s,
                           u"subjectAltName="_s + altName, u"-out"_s, request} +
               Authority::newKey(key.fileName()));
    runOpenssl({u"x509"_s, u"-req"_s, u"-in"_s, request, u"-CA"_s, authority.certificatePath(), u"-CAkey"_s,
                authority.keyPath(), u"-set_serial"_s, u"1"_s, u"-days"_s, isCurrent ? u"2"_s : u"-1"_s,
                u"-copy_extensions"_s, u"copyall"_s, u"-out"_s, certificate.fileName()});
    if (!key.open(QIODevice::ReadOnly) || !certificate.open(QIODevice::ReadOnly))
        qFatal("openssl's certificate cannot be read");
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setPrivateKey(QSslKey(&key, QSsl::Ec));
    configuration.setLocalCertificate(QSslCertificate(&certificate));
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    return configuration;
}

QSslCertificate HttpTestServer::authority()
{
    return QSslCertificate::fromPath(Authority::instance().certificatePath()).value(0);
}

void HttpTestServer::incomingConnection(qintptr descriptor)
{
    auto *socket = new QSslSocket(this);
    socket->setSocketDescriptor(descriptor);
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    if (!isSecure)
        return;
    socket->setSslConfiguration(tls);
    socket->startServerEncryption();
}

void HttpTestServer::read(QTcpSocket *socket)
{
    QByteArray head = socket->property("head").toByteArray();
    if (head.endsWith("\r\n\r\n"))
        return; // one request for each connection
    while (socket->canReadLine() && !head.endsWith("\r\n\r\n"))
        head += socket->readLine();
    socket->setProperty("head", head);
    if (!head.endsWith("\r\n\r\n"))
        return;
    heads += head;
    const QByteArray target = head.split(' ').value(1);
    const QByteArray path = target.split('?').first();
    const HttpAnswer answer = answers.value(target, answers.value(path, answers.value("/")));
    play(socket, answer, 0);
}

void HttpTestServer::play(QTcpSocket *socket, const HttpAnswer &answer, qsizetype from)
{
    const bool isOver = from >= answer.bytes.size();
    QByteArray packet = answer.bytes.mid(from, answer.fragment > 0 ? answer.fragment : -1);
    if (isOver && answer.end == HttpAnswer::End::Endless)
        packet = QByteArray(kEndlessChunk, answer.bytes.back());
    if (!packet.isEmpty()) {
        socket->write(packet);
        sentBytes += packet.size();
    }
    const qsizetype next = from + packet.size();
    if (next < answer.bytes.size() || answer.end == HttpAnswer::End::Endless) {
        // Only once the packet is out, so that the client gets them one by one.
        connect(
            socket, &QIODevice::bytesWritten, this,
            [this, socket, answer, next] { play(socket, answer, next); }, Qt::SingleShotConnection);
        return;
    }
    if (answer.end == HttpAnswer::End::Close)
        socket->disconnectFromHost();
    if (answer.end == HttpAnswer::End::Reset) {
        while (socket->bytesToWrite() > 0 && socket->waitForBytesWritten()) {
        }
        socket->abort();
    }
}
