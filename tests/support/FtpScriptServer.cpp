#include "support/FtpScriptServer.h"

#include "support/RefusedPort.h"
#include "support/TlsListener.h"

#include <QDeadlineTimer>
#include <QHostAddress>
#include <QNetworkProxy>
#include <QSslConfiguration>
#include <QThread>

#include <memory>
#include <utility>

#ifdef Q_OS_UNIX
#include <sys/socket.h>
#include <unistd.h>
#endif

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 20000; // for a client that ought to do something
constexpr int kGraceMs = 1500;     // the same once the test is over
constexpr int kSliceMs = 5;
constexpr int kPacketPauseMs = 2; // keeps what is sent before and after in packets of their own

} // namespace

/** The server's side of its sessions; lives on the server's thread. Steps answer what went wrong. */
class ScriptedSession
{
public:
    ScriptedSession(const QSslConfiguration &configuration, const std::atomic<bool> *testIsOver);

    quint16 port() const { return controls.serverPort(); }
    FtpScriptServer::Record play(const QList<FtpScript::Step> &steps);

private:
    using Step = FtpScript::Step;

    QString play(const Step &step);
    QString accept();
    QString expect(const QByteArray &line);
    QString say(QByteArray text);
    QString onlyQuit(bool untilGone);
    QString listenForData(bool dead);
    QString refuseData();
    QString playData(const Step &step);
    QString breakTls();
    QString closeData(FtpScript::End end);
    QString stall();
    QString encrypt(QSslSocket *socket, bool mayFail);

    template <typename Attempt>
    bool await(Attempt attempt) const;
    bool awaitSignal(const std::atomic<bool> *signal) const;
    bool takeLine(QByteArray *line, bool evenIfOver);
    bool openData();
    bool flush(QSslSocket *socket) const;
    bool write(QSslSocket *socket, const QByteArray &bytes, int *packet) const;
    void hangUp(QSslSocket *socket) const;
    static void reset(QSslSocket *socket);

    const std::atomic<bool> *finishing;
    QSslConfiguration tls;
    TlsListener controls;
    std::unique_ptr<QSslSocket> control;
    QByteArray input;   ///< received and not taken as a line yet
    int packetSize = 0; ///< of the next reply; 0 for a single packet
    std::unique_ptr<RefusedPort> refusedPort;
    std::unique_ptr<TlsListener> dataListener;
    std::unique_ptr<QSslSocket> filler; ///< fills the queue of a dead port
    std::unique_ptr<QSslSocket> data;
    int dataPacketSize = 0;
    FtpScriptServer::Record record;
};

ScriptedSession::ScriptedSession(const QSslConfiguration &configuration,
                                 const std::atomic<bool> *testIsOver) :
    finishing(testIsOver),
    tls(configuration), controls(configuration)
{
    if (!controls.listen(QHostAddress::LocalHost))
        qFatal("cannot listen on 127.0.0.1");
}

FtpScriptServer::Record ScriptedSession::play(const QList<Step> &steps)
{
    QString problem = accept();
    int number = 0;
    while (problem.isEmpty() && number < steps.size())
        problem = play(steps[number++]);
    if (problem.isEmpty()) {
        problem = onlyQuit(false);
        ++number;
    }
    if (!problem.isEmpty())
        record.problem = u"step %1: %2"_s.arg(QString::number(number), problem);
    return record;
}

QString ScriptedSession::play(const Step &step)
{
    switch (step.kind) {
    case Step::Accept:
        return accept();
    case Step::Expect:
        return expect(step.bytes);
    case Step::Say:
        return say(step.bytes);
    case Step::Fragment:
        packetSize = step.number;
        return {};
    case Step::Delay:
        QThread::msleep(static_cast<unsigned long>(step.number));
        return {};
    case Step::Call:
        step.action();
        return {};
    case Step::Silence:
        return onlyQuit(true);
    case Step::WaitFor:
        return awaitSignal(step.signal) ? QString() : u"the test gave no sign"_s;
    case Step::Hold:
        awaitSignal(finishing);
        reset(control.get());
        return {};
    case Step::CloseControl:
        hangUp(control.get());
        return {};
    case Step::DropControl:
        reset(control.get());
        return {};
    case Step::Passive:
        return listenForData(false);
    case Step::PassiveDead:
        return listenForData(true);
    case Step::PassiveRefused:
        return refuseData();
    case Step::DataFragment:
        dataPacketSize = step.number;
        return {};
    case Step::StartTls:
        return encrypt(control.get(), step.number != 0);
    default:
        return openData() ? playData(step) : u"no data connection"_s;
    }
}

QString ScriptedSession::playData(const Step &step)
{
    switch (step.kind) {
    case Step::DataSend:
        write(data.get(), step.bytes, &dataPacketSize); // a client may well go in the middle of a transfer
        return {};
    case Step::DataBreakTls:
        return breakTls();
    case Step::DataClose:
        return closeData(static_cast<FtpScript::End>(step.number));
    case Step::DataReset:
        reset(data.get());
        return {};
    case Step::DataTls:
        return encrypt(data.get(), step.number != 0);
    default:
        return stall();
    }
}

/** Repeats a short attempt until it says true; false when patience has run out. */
template <typename Attempt>
bool ScriptedSession::await(Attempt attempt) const
{
    QDeadlineTimer deadline(kPatienceMs);
    bool inGrace = false;
    while (!attempt()) {
        if (deadline.hasExpired())
            return false;
        if (!inGrace && *finishing) {
            inGrace = true;
            deadline.setRemainingTime(kGraceMs);
        }
    }
    return true;
}

bool ScriptedSession::awaitSignal(const std::atomic<bool> *signal) const
{
    return await([signal] {
        QThread::msleep(kPacketPauseMs);
        return signal->load();
    });
}

QString ScriptedSession::accept()
{
    input.clear();
    await([this] { return controls.hasPendingConnections() || controls.waitForNewConnection(kSliceMs); });
    control = controls.take();
    return control ? QString() : u"nobody connected"_s;
}

/** The next line without its end. False if there is none, or none so far and the test is over. */
bool ScriptedSession::takeLine(QByteArray *line, bool evenIfOver)
{
    await([this, evenIfOver] {
        // Looked at before reading, so that what the client sent before the test's end is still read.
        const bool isOver = *finishing && !evenIfOver;
        if (!input.contains('\n') && !hasGone(*control))
            control->waitForReadyRead(kSliceMs);
        const QByteArray news = control->isOpen() ? control->readAll() : QByteArray();
        record.received += news;
        input += news;
        return isOver || input.contains('\n') || hasGone(*control);
    });
    const qsizetype end = input.indexOf('\n');
    if (end < 0)
        return false;
    *line = input.first(end);
    input.remove(0, end + 1);
    if (line->endsWith('\r'))
        line->chop(1);
    record.commands += *line;
    return true;
}

QString ScriptedSession::expect(const QByteArray &line)
{
    const QString wanted = u"expected '%1', got "_s.arg(QString::fromUtf8(line));
    QByteArray heard;
    if (!takeLine(&heard, true))
        return wanted + (hasGone(*control) ? u"the end of the connection"_s : u"nothing"_s);
    return heard == line ? QString() : wanted + u'\'' + QString::fromUtf8(heard) + u'\'';
}

/** Until the client has gone, or as far as that does not matter, until the test is over. */
QString ScriptedSession::onlyQuit(bool untilGone)
{
    QByteArray line;
    while (takeLine(&line, untilGone)) {
        if (line != "QUIT")
            return u"expected no command, got '%1'"_s.arg(QString::fromUtf8(line));
    }
    return untilGone && !hasGone(*control) ? u"the client has not closed its connection"_s : QString();
}

QString ScriptedSession::say(QByteArray text)
{
    if (!record.dataPorts.isEmpty()) {
        const int number = record.dataPorts.last();
        text.replace("%PORT%", QByteArray::number(number));
        text.replace("%PORT+65536%", QByteArray::number(number + 65536));
        text.replace("%P1%", QByteArray::number(number / 256));
        text.replace("%P1+256%", QByteArray::number(number / 256 + 256));
        text.replace("%P2%", QByteArray::number(number % 256));
    }
    return write(control.get(), text, &packetSize) ? QString() : u"the reply could not be sent"_s;
}

/** False if the peer has gone. */
bool ScriptedSession::flush(QSslSocket *socket) const
{
    const auto isPending = [socket] {
        return socket->bytesToWrite() > 0 || socket->encryptedBytesToWrite() > 0;
    };
    const bool settled = await([socket, isPending] {
        if (isPending())
            socket->waitForBytesWritten(kSliceMs);
        return !isPending() || hasGone(*socket);
    });
    return settled && !hasGone(*socket);
}

/** In packets of the size that was asked for; afterwards in one again. */
bool ScriptedSession::write(QSslSocket *socket, const QByteArray &bytes, int *packet) const
{
    const int asked = std::exchange(*packet, 0);
    const qsizetype size = asked > 0 ? asked : bytes.size();
    for (qsizetype at = 0; at < bytes.size(); at += size) {
        socket->write(bytes.mid(at, size));
        if (!flush(socket))
            return false;
        if (asked > 0)
            QThread::msleep(kPacketPauseMs);
    }
    return true;
}

QString ScriptedSession::encrypt(QSslSocket *socket, bool mayFail)
{
    socket->startServerEncryption();
    await([socket] { return socket->waitForEncrypted(kSliceMs) || hasGone(*socket); });
    flush(socket); // the last word of the handshake may be pending still
    return socket->isEncrypted() || mayFail ? QString() : u"TLS handshake: "_s + socket->errorString();
}

void ScriptedSession::hangUp(QSslSocket *socket) const
{
    socket->disconnectFromHost();
    await([socket] {
        return socket->state() == QAbstractSocket::UnconnectedState || socket->waitForDisconnected(kSliceMs);
    });
}

void ScriptedSession::reset(QSslSocket *socket)
{
#ifdef Q_OS_UNIX
    const linger atOnce = {.l_onoff = 1, .l_linger = 0};
    ::setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
#endif
    socket->abort();
}

QString ScriptedSession::listenForData(bool dead)
{
    data.reset();
    filler.reset();
    dataListener = std::make_unique<TlsListener>(tls);
    if (dead)
        dataListener->setListenBacklogSize(0);
    if (!dataListener->listen(QHostAddress::LocalHost))
        return u"no port for data"_s;
    record.dataPorts += dataListener->serverPort();
    if (!dead)
        return {};
    // One connection that nobody accepts fills the queue; those behind it get no answer at all.
    filler = std::make_unique<QSslSocket>();
    filler->setProxy(QNetworkProxy::NoProxy);
    filler->connectToHost(QHostAddress(QHostAddress::LocalHost), dataListener->serverPort());
    return filler->waitForConnected(kPatienceMs) ? QString() : u"the dead port takes nobody at all"_s;
}

QString ScriptedSession::refuseData()
{
    data.reset();
    dataListener.reset();
    refusedPort = std::make_unique<RefusedPort>();
    record.dataPorts += refusedPort->number();
    return {};
}

bool ScriptedSession::openData()
{
    if (!data && dataListener) {
        await([this] {
            return dataListener->hasPendingConnections() || dataListener->waitForNewConnection(kSliceMs);
        });
        data = dataListener->take();
    }
    return data != nullptr;
}

QString ScriptedSession::stall()
{
    const bool gone = await([this] {
        if (!hasGone(*data))
            data->waitForReadyRead(kSliceMs);
        if (data->isOpen())
            data->readAll();
        return hasGone(*data);
    });
    return gone ? QString() : u"the client has not closed the data connection"_s;
}

QString ScriptedSession::breakTls()
{
#ifdef Q_OS_UNIX
    // An application record whose content nobody has encrypted, in place of the closing alert.
    const QByteArray broken = QByteArray("\x17\x03\x03\x00\x20", 5) + QByteArray(32, 'x');
    const auto descriptor = static_cast<int>(data->socketDescriptor());
    if (::send(descriptor, broken.constData(), static_cast<size_t>(broken.size()), MSG_NOSIGNAL) < 0)
        return u"the broken record was not sent"_s;
    ::shutdown(descriptor, SHUT_WR);
#endif
    return stall();
}

QString ScriptedSession::closeData(FtpScript::End end)
{
    int kept = -1;
#ifdef Q_OS_UNIX
    const auto descriptor = static_cast<int>(data->socketDescriptor());
    if (end == FtpScript::End::WithoutAlert) {
        ::shutdown(descriptor, SHUT_WR);
        return stall();
    }
    // A second descriptor keeps TCP open when the socket sends its alert and closes.
    if (end == FtpScript::End::AlertOnly)
        kept = ::dup(descriptor);
#endif
    hangUp(data.get());
    if (kept < 0)
        return {};
    data = std::make_unique<QSslSocket>();
    data->setSocketDescriptor(kept);
    return stall();
}

FtpScript &FtpScript::add(const Step &step)
{
    steps += step;
    return *this;
}

FtpScript &FtpScript::append(const FtpScript &more)
{
    steps += more.steps;
    return *this;
}

FtpScript &FtpScript::reply(int code, const QByteArray &text)
{
    return replyRaw(QByteArray::number(code) + ' ' + text + "\r\n");
}

FtpScript &FtpScript::waitFor(const std::atomic<bool> *signal)
{
    return add({Step::WaitFor, {}, 0, {}, signal});
}

FtpScript &FtpScript::tlsVersion(QSsl::SslProtocol protocol)
{
    tlsProtocol = protocol;
    return *this;
}

FtpScript &FtpScript::announce(const QByteArrayList &features)
{
    expect("FEAT");
    if (features.isEmpty())
        return reply(500, "what?");
    replyRaw("211-I can do\r\n " + features.join("\r\n ") + "\r\n211 no more\r\n");
    return features.contains("UTF8") ? expect("OPTS UTF8 ON").reply(200) : *this;
}

FtpScript &FtpScript::login(const QByteArrayList &features)
{
    reply(220).expect("USER kim").reply(331).expect("PASS secret").reply(230);
    return announce(features);
}

FtpScript &FtpScript::secureLogin(const QByteArrayList &features)
{
    reply(220).expect("AUTH TLS").reply(234).startTls();
    expect("USER kim").reply(331).expect("PASS secret").reply(230);
    expect("PBSZ 0").reply(200).expect("PROT P").reply(200);
    return announce(features);
}

FtpScriptServer::FtpScriptServer(const FtpScript &script)
{
    QSslConfiguration tls = serverTls();
    tls.setProtocol(script.tlsProtocol);
    std::promise<quint16> opened;
    std::future<quint16> port = opened.get_future();
    playing =
        std::async(std::launch::async, [this, tls, steps = script.steps, told = std::move(opened)]() mutable {
            ScriptedSession session(tls, &finishing);
            told.set_value(session.port());
            return session.play(steps);
        });
    controlPort = port.get();
}

FtpScriptServer::~FtpScriptServer() { finish(); }

QString FtpScriptServer::finish()
{
    finishing = true;
    if (playing.valid())
        record = playing.get();
    return record.problem;
}
