#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QList>
#include <QSslSocket>
#include <QString>

#include <atomic>
#include <functional>
#include <future>

/**
 * What a server hears and says in one test, written down as a dialogue:
 *
 *     FtpScript script;
 *     script.login().expect("CWD /").reply(250).expect("TYPE I").reply(200);
 *     script.enterPassive().expect("MLSD").reply(150).dataSend("type=file; a\r\n").dataClose().reply(226);
 *
 * A reply may name the port of the last passive...() step: %PORT% is the number, %P1% and %P2% are
 * its two bytes; %PORT+65536% and %P1+256% are the same for whoever keeps 16 bits. Behind the last step the
 * server listens on and takes nothing but a QUIT.
 */
class FtpScript
{
public:
    /** How the server ends a data connection; without TLS all are the same. */
    enum class End {
        Clean,       ///< closing alert, then the close of TCP
        AlertOnly,   ///< closing alert, then waits for the client to close
        WithoutAlert ///< nothing but the close of TCP
    };

    /** Every command is compared whole and to the letter. */
    FtpScript &expect(const QByteArray &line) { return add({Step::Expect, line}); }
    FtpScript &append(const FtpScript &more);
    FtpScript &reply(int code, const QByteArray &text = "as you wish");
    FtpScript &replyRaw(const QByteArray &bytes) { return add({Step::Say, bytes}); }
    /** Cuts the next reply into packets of so many bytes. */
    FtpScript &fragment(int bytes) { return add({Step::Fragment, {}, bytes}); }
    FtpScript &delay(int milliseconds) { return add({Step::Delay, {}, milliseconds}); }
    /** On the server's thread. */
    FtpScript &call(const std::function<void()> &action) { return add({Step::Call, {}, 0, action}); }
    /** Until the test sets it. */
    FtpScript &waitFor(const std::atomic<bool> *signal);
    /** Says nothing until the client goes. */
    FtpScript &silence() { return add({Step::Silence}); }
    /** Neither reads nor says anything until the test is over, and drops the connection then. */
    FtpScript &hold() { return add({Step::Hold}); }
    FtpScript &closeControl() { return add({Step::CloseControl}); }
    /** By a reset of the connection. */
    FtpScript &dropControl() { return add({Step::DropControl}); }
    /** Waits for the client to go, and for its next connection. */
    FtpScript &nextSession() { return silence().add({Step::Accept}); }

    /** Opens a port for the next data connection. */
    FtpScript &passive() { return add({Step::Passive}); }
    /** The port of the next replies is one on which nobody listens. */
    FtpScript &passiveRefused() { return add({Step::PassiveRefused}); }
    /** The port of the next replies is one that neither takes nor refuses a connection. */
    FtpScript &passiveDead() { return add({Step::PassiveDead}); }
    FtpScript &reply227() { return reply(227, "Passive (127,0,0,1,%P1%,%P2%)"); }
    FtpScript &reply229() { return reply(229, "Extended passive (|||%PORT%|)"); }
    FtpScript &enterPassive() { return expect("EPSV").passive().reply229(); }

    FtpScript &dataSend(const QByteArray &bytes) { return add({Step::DataSend, bytes}); }
    /** Sends what is no TLS record through the middle of a protected data connection. */
    FtpScript &dataBreakTls() { return add({Step::DataBreakTls}); }
    /** Cuts the next dataSend() into packets of so many bytes. */
    FtpScript &dataFragment(int bytes) { return add({Step::DataFragment, {}, bytes}); }
    /** Sends no more, and wants the client to close. */
    FtpScript &dataStall() { return add({Step::DataStall}); }
    FtpScript &dataClose(End end = End::Clean) { return add({Step::DataClose, {}, static_cast<int>(end)}); }
    FtpScript &dataReset() { return add({Step::DataReset}); }

    FtpScript &startTls() { return add({Step::StartTls}); }
    FtpScript &dataTls() { return add({Step::DataTls}); }
    /** As startTls(), but the handshake need not succeed. */
    FtpScript &offerTls() { return add({Step::StartTls, {}, 1}); }
    /** As dataTls(), but the handshake need not succeed. */
    FtpScript &offerDataTls() { return add({Step::DataTls, {}, 1}); }
    /** For the whole script, wherever it stands. */
    FtpScript &tlsVersion(QSsl::SslProtocol protocol);

    /** The opening of a session for kim, password secret; without features, FEAT is refused. */
    FtpScript &login(const QByteArrayList &features = {"MLSD", "MDTM", "SIZE"});
    FtpScript &secureLogin(const QByteArrayList &features = {"MLSD", "MDTM", "SIZE"});

private:
    friend class FtpScriptServer;
    friend class ScriptedSession;

    struct Step
    {
        enum Kind {
            Accept,
            Expect,
            Say,
            Fragment,
            Delay,
            Call,
            WaitFor,
            Silence,
            Hold,
            CloseControl,
            DropControl,
            Passive,
            PassiveRefused,
            PassiveDead,
            DataSend,
            DataBreakTls,
            DataFragment,
            DataStall,
            DataClose,
            DataReset,
            StartTls,
            DataTls
        };

        Kind kind = Accept;
        QByteArray bytes = {};
        int number = 0;
        std::function<void()> action = {};
        const std::atomic<bool> *signal = nullptr;
    };

    FtpScript &add(const Step &step);
    FtpScript &announce(const QByteArrayList &features);

    QList<Step> steps;
    QSsl::SslProtocol tlsProtocol = QSsl::SecureProtocols;
};

/**
 * Plays a script on 127.0.0.1, on a thread of its own since the client blocks.
 *
 * When a step fails, all connections are closed, so that the client does not hang. What was
 * recorded can be asked for once finish() has returned.
 */
class FtpScriptServer
{
public:
    explicit FtpScriptServer(const FtpScript &script);
    ~FtpScriptServer();

    quint16 port() const { return controlPort; }

    /** Ends the server; empty if the script was played to its end, otherwise which step failed. */
    QString finish();

    QByteArray received() const { return record.received; } ///< on control connections, decrypted
    QByteArrayList commands() const { return record.commands; }
    QList<quint16> dataPorts() const { return record.dataPorts; }

private:
    friend class ScriptedSession;

    struct Record
    {
        QString problem = {};
        QByteArray received = {};
        QByteArrayList commands = {};
        QList<quint16> dataPorts = {};
    };

    std::atomic<bool> finishing = false;
    quint16 controlPort = 0;
    std::future<Record> playing;
    Record record;
};
