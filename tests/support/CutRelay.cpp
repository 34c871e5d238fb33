#include "support/CutRelay.h"

#include <QDeadlineTimer>
#include <QThread>

#include <algorithm>
#include <array>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kPauseMs = 2; // keeps what comes before and after it in packets of their own
constexpr size_t kChunkBytes = 65536;

void need(bool done, const char *what)
{
    if (!done)
        qFatal("relay: %s failed", what);
}

/** Closes a descriptor that is still open. */
void closeFd(int *fd)
{
    if (*fd >= 0)
        ::close(std::exchange(*fd, -1));
}

/** By a reset, which leaves no port behind that is taken for a minute: thousands of runs need many. */
void dropFd(int *fd)
{
    const linger atOnce = {.l_onoff = 1, .l_linger = 0};
    if (*fd >= 0)
        ::setsockopt(*fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    closeFd(fd);
}

sockaddr_in localAddress(quint16 port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

void setNoDelay(int fd)
{
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void sendAll(int fd, const char *bytes, size_t count)
{
    while (count > 0) {
        const ssize_t sent = ::send(fd, bytes, count, MSG_NOSIGNAL);
        if (sent <= 0)
            return; // the peer has gone, which reading tells as well
        bytes += sent;
        count -= static_cast<size_t>(sent);
    }
}

/** The listeners of all relays. A new port for each connection would take longer than all the rest. */
class Listeners
{
public:
    static int take();
    static void giveBack(int listener);

private:
    static inline std::mutex guard;
    static inline std::vector<int> unused; ///< behind the guard
};

int Listeners::take()
{
    {
        const std::lock_guard locked(guard);
        if (!unused.empty()) {
            const int listener = unused.back();
            unused.pop_back();
            return listener;
        }
    }
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    const sockaddr_in address = localAddress(0);
    need(listener >= 0 &&
             ::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
             ::listen(listener, 1) == 0,
         "listening");
    return listener;
}

void Listeners::giveBack(int listener)
{
    // Nobody who came too late may be taken for the next one.
    for (int late = ::accept(listener, nullptr, nullptr); late >= 0;
         late = ::accept(listener, nullptr, nullptr))
        ::close(late);
    const std::lock_guard locked(guard);
    unused.push_back(listener);
}

quint16 portOf(int listener)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    need(::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) == 0, "getsockname()");
    return ntohs(address.sin_port);
}

bool isReady(const pollfd &waited) { return (waited.revents & (POLLIN | POLLHUP | POLLERR)) != 0; }

/** Takes nobody else on a port that was for one connection. */
void refuseUntil(int ending, int listener)
{
    for (;;) {
        std::array<pollfd, 2> waited{{{listener, POLLIN, 0}, {ending, POLLIN, 0}}};
        if (::poll(waited.data(), waited.size(), -1) < 0)
            continue;
        if (isReady(waited[1]))
            return;
        int late = ::accept(listener, nullptr, nullptr);
        dropFd(&late);
    }
}

/** One client's connection through the relay; lives on a thread of its own. */
class Passage
{
public:
    Passage(const Cut &cutHere, int endingFd, int goingFd) : cut(cutHere), ending(endingFd), going(goingFd) {}
    ~Passage();
    Q_DISABLE_COPY_MOVE(Passage)

    bool open(int listener, quint16 target);
    /** Returns when the client has gone, or everything ends; calls `commit` at the cut. */
    template <typename Commit>
    void run(Commit commit);

    QByteArray passed;

private:
    enum Place { Client, Server, Ending, Going };

    template <typename Commit>
    void pass(const char *bytes, size_t count, Commit commit);
    template <typename Commit>
    void makeCut(Commit commit);
    template <typename Commit>
    void end(Commit commit);
    void closeToClient();

    const Cut cut;
    const int ending;
    const int going;
    int client = -1;
    int server = -1;
    bool isCut = false;
    bool isMute = false; ///< nothing more goes to the client
};

Passage::~Passage()
{
    dropFd(&client);
    dropFd(&server);
}

bool Passage::open(int listener, quint16 target)
{
    std::array<pollfd, 3> waited{{{listener, POLLIN, 0}, {ending, POLLIN, 0}, {going, POLLIN, 0}}};
    while (::poll(waited.data(), waited.size(), -1) < 0) {
    }
    if (!isReady(waited[0]) || isReady(waited[1]) || isReady(waited[2]))
        return false;
    client = ::accept(listener, nullptr, nullptr);
    server = ::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = localAddress(target);
    if (client < 0 || server < 0 ||
        ::connect(server, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return false;
    setNoDelay(client);
    setNoDelay(server);
    return true;
}

template <typename Commit>
void Passage::run(Commit commit)
{
    pass(nullptr, 0, commit);
    std::array<char, kChunkBytes> chunk;
    bool hasClosedAll = false;
    while (client >= 0) {
        std::array<pollfd, 4> waited{{{client, POLLIN, 0},
                                      {server, POLLIN, 0},
                                      {ending, POLLIN, 0},
                                      {hasClosedAll ? -1 : going, POLLIN, 0}}};
        if (::poll(waited.data(), waited.size(), -1) < 0)
            continue;
        if (isReady(waited[Ending]))
            return;
        if (isReady(waited[Going])) {
            hasClosedAll = true;
            closeToClient();
            continue;
        }
        if (isReady(waited[Client])) {
            const ssize_t count = ::recv(client, chunk.data(), chunk.size(), 0);
            if (count <= 0)
                return;
            if (!isMute && server >= 0)
                sendAll(server, chunk.data(), static_cast<size_t>(count));
        }
        if (isReady(waited[Server])) {
            const ssize_t count = ::recv(server, chunk.data(), chunk.size(), 0);
            if (count > 0)
                pass(chunk.data(), static_cast<size_t>(count), commit);
            else
                end(commit);
        }
    }
}

template <typename Commit>
void Passage::pass(const char *bytes, size_t count, Commit commit)
{
    if (isMute)
        return;
    const auto room = static_cast<size_t>(std::max<qint64>(cut.offset - passed.size(), 0));
    const bool isDue = cut.kind != Cut::None && !isCut && count >= room;
    const size_t before = isDue ? room : count;
    sendAll(client, bytes, before);
    passed.append(bytes, static_cast<qsizetype>(before));
    if (!isDue)
        return;
    makeCut(commit);
    if (cut.kind != Cut::Pause)
        return;
    QThread::msleep(kPauseMs);
    sendAll(client, bytes + before, count - before);
    passed.append(bytes + before, static_cast<qsizetype>(count - before));
}

template <typename Commit>
void Passage::makeCut(Commit commit)
{
    isCut = true;
    commit();
    if (cut.kind == Cut::Reset)
        dropFd(&client);
    else if (cut.kind == Cut::Silence)
        isMute = true;
    else if (cut.kind != Cut::Pause)
        closeToClient();
}

/** The server has closed. A handshake is a few bytes shorter now and then: then this is the place of the cut.
 */
template <typename Commit>
void Passage::end(Commit commit)
{
    if (cut.kind != Cut::None && cut.kind != Cut::Pause && !isCut)
        makeCut(commit);
    if (isMute)
        dropFd(&server);
    else
        closeToClient();
}

/**
 * The client's own close is awaited: closed at once with something of the client's unread, the
 * connection would be reset.
 */
void Passage::closeToClient()
{
    isMute = true;
    ::shutdown(client, SHUT_WR);
    dropFd(&server);
}

} // namespace

CutRelay::CutRelay(const Cut &wanted) : cut(wanted)
{
    need(::pipe(ending) == 0 && ::pipe(going) == 0, "pipe()");
}

CutRelay::~CutRelay()
{
    finish();
    for (int *fd : {&ending[0], &going[0], &going[1]})
        closeFd(fd);
}

quint16 CutRelay::forward(quint16 target)
{
    const int listener = Listeners::take();
    const std::lock_guard locked(guard);
    const auto number = static_cast<int>(relaying.size());
    listeners.push_back(listener);
    relaying.push_back(std::async(
        std::launch::async, [this, listener, target, number] { return relay(listener, target, number); }));
    return portOf(listener);
}

void CutRelay::finish()
{
    closeFd(&ending[1]);
    const std::lock_guard locked(guard);
    for (std::future<QByteArray> &done : relaying)
        passed += done.get();
    relaying.clear();
    for (const int listener : std::exchange(listeners, {}))
        Listeners::giveBack(listener);
}

QByteArray CutRelay::relay(int listener, quint16 target, int number)
{
    QByteArray brought;
    {
        Passage passage(number == cut.connection ? cut : Cut(), ending[0], going[0]);
        if (!passage.open(listener, target))
            return {};
        passage.run([this] {
            isCut = true;
            if (cut.kind == Cut::CloseAll)
                closeFd(&going[1]);
        });
        brought = passage.passed;
    }
    refuseUntil(ending[0], listener); // a connection that is reset at once may be tried again
    return brought;
}
