#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QHash>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

/** What the server says to one address, to the letter, and what it does then. */
struct HttpAnswer
{
    enum class End {
        Close,   ///< ends the connection
        Reset,   ///< breaks it off
        Silence, ///< leaves it open and says no more
        Endless  ///< says the last byte again and again
    };

    QByteArray bytes = {};
    End end = End::Close;
    int fragment = 0; ///< bytes in a packet, 0 for as many as there are

    static HttpAnswer json(const QByteArray &body) { return status(200, body); }
    static HttpAnswer status(int code, const QByteArray &body, const QByteArray &moreHeaders = {});
    static HttpAnswer redirect(const QUrl &target)
    {
        return status(302, {}, "Location: " + target.toEncoded() + "\r\n");
    }
    static HttpAnswer raw(const QByteArray &bytes, End end = End::Close) { return {bytes, end}; }
};

/**
 * An HTTP or HTTPS server on 127.0.0.1 that lives on the test's thread: the test's event loop runs
 * it. Each connection takes one request.
 */
class HttpTestServer : public QTcpServer
{
    Q_OBJECT

public:
    HttpTestServer();
    explicit HttpTestServer(const QSslConfiguration &configuration);

    QUrl url(const QString &path = QStringLiteral("/")) const;

    /** For a path with or without a query; what has no answer of its own gets that of "/". */
    void setAnswer(const HttpAnswer &answer, const QByteArray &path = "/") { answers[path] = answer; }

    /** Whole heads of requests, as they came. */
    QByteArrayList requests() const { return heads; }
    /** "GET /path?query HTTP/1.1" */
    QByteArray requestLine(qsizetype request = 0) const { return heads.value(request).split('\r').first(); }
    /** Value of a header field, whatever the case of its name. */
    QByteArray header(const QByteArray &name, qsizetype request = 0) const;

    /** Of bytes of the answers, all connections together. */
    qint64 sent() const { return sentBytes; }
    /** Connections that are open. */
    qsizetype connections() const;
    /** Says something more on the open connections. */
    void say(const QByteArray &bytes);
    /** Ends the open connections. */
    void hangUp();

    /**
     * A server's TLS with a certificate made for it, which the test's own authority has signed.
     *
     * @param altName such as "IP:127.0.0.1"
     * @param isCurrent false for one that has run out
     */
    static QSslConfiguration makeTls(const QString &altName, bool isCurrent = true);
    /** Whoever trusts it verifies these certificates. */
    static QSslCertificate authority();

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void read(QTcpSocket *socket);
    void play(QTcpSocket *socket, const HttpAnswer &answer, qsizetype from);

    QSslConfiguration tls;
    bool isSecure = false;
    QHash<QByteArray, HttpAnswer> answers;
    QByteArrayList heads;
    qint64 sentBytes = 0;
};
