#pragma once

#include <QByteArray>
#include <QList>

#include <atomic>
#include <future>
#include <mutex>
#include <vector>

/** What becomes of a connection once so many bytes of the server's have passed. */
struct Cut
{
    enum Kind {
        None,
        Close,    ///< the client sees the end of the connection
        Reset,    ///< the client sees it fail; what it has not read yet may be lost
        Silence,  ///< nothing more comes, but the connection stays
        CloseAll, ///< as Close, and so end all other connections
        Pause     ///< the rest comes a little later, in a packet of its own
    };

    Kind kind = None;
    int connection = 0; ///< in the order of forward(), from 0
    qint64 offset = 0;  ///< bytes on the wire, be they encrypted or not
};

/**
 * Stands between a client and a server on 127.0.0.1, passes on what they say and cuts one
 * connection as told.
 *
 * It needs no word of what it passes on, so it cuts in the middle of a TLS record or handshake as
 * well. Each connection has a thread of its own.
 */
class CutRelay
{
public:
    explicit CutRelay(const Cut &cut = {});
    ~CutRelay();
    Q_DISABLE_COPY_MOVE(CutRelay)

    /** Opens a port for one connection to this port of the server, and tells it; from any thread. */
    quint16 forward(quint16 target);

    /** Ends all connections that are left; the client must be done. */
    void finish();

    /** What each connection brought from the server, once the relay has been finished. */
    QList<QByteArray> brought() const { return passed; }
    /** Whether there was a cut. */
    bool hasCut() const { return isCut; }

private:
    QByteArray relay(int listener, quint16 target, int number);

    const Cut cut;
    int ending[2] = {-1, -1}; ///< a pipe whose writing end is closed to end all threads
    int going[2] = {-1, -1};  ///< the same to close all connections to the client
    std::atomic<bool> isCut = false;
    std::mutex guard;
    std::vector<std::future<QByteArray>> relaying; ///< behind the guard
    std::vector<int> listeners;                    ///< behind the guard
    QList<QByteArray> passed;
};
