#pragma once

#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpServer>

#include <memory>

/** With a certificate that no client has a reason to trust, made once for the whole test program. */
const QSslConfiguration &serverTls();

/** Whether the peer has closed; after a closing alert the state alone does not say so. */
bool hasGone(const QSslSocket &socket);

/** Listens on a free port and hands out sockets that can do TLS. */
class TlsListener : public QTcpServer
{
    Q_OBJECT

public:
    explicit TlsListener(const QSslConfiguration &configuration);

    /** Null if nobody has connected. */
    std::unique_ptr<QSslSocket> take();

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    QSslConfiguration tls;
};
