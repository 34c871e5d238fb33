#pragma once

#include <QHostAddress>
#include <QTcpSocket>

/**
 * A port on 127.0.0.1 that refuses connections. It stays taken meanwhile, so that no other server
 * can be given it.
 */
class RefusedPort
{
public:
    RefusedPort()
    {
        if (!holder.bind(QHostAddress::LocalHost))
            qFatal("no port to hold");
    }

    quint16 number() const { return holder.localPort(); }

private:
    QTcpSocket holder;
};
