#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QList>
#include <QMap>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>

/** An entry of a remote folder. Names are the bytes on the wire, and nothing keeps them harmless. */
struct RemoteEntry
{
    enum Kind { File, Folder, Link, Line };

    Kind kind = File;
    QByteArray name = {};    ///< or the whole line of the listing
    QByteArray content = {}; ///< what a download brings
    QByteArray time = {};    ///< "20240131120000" in UTC; empty if the server does not tell
    QByteArray size = {};    ///< as listed; empty if the server does not tell
};

RemoteEntry remoteFile(const QByteArray &name, const QByteArray &content, const QByteArray &time = {});
/** A file whose listed size is not that of its content; an empty one leaves the size out of MLSD. */
RemoteEntry remoteFileListedAs(const QByteArray &size, const QByteArray &name, const QByteArray &content,
                               const QByteArray &time = {});
RemoteEntry remoteFolder(const QByteArray &name);
RemoteEntry remoteLink(const QByteArray &name);
/** A line of the listing, literally. */
RemoteEntry remoteLine(const QByteArray &line);

/** The entries of each folder, in the order of its listing. A path is its folder's path, "/" and its name. */
using RemoteTree = QMap<QByteArray, QList<RemoteEntry>>;

/** Something that a server does instead of, or in the middle of, what it should. */
class Fault
{
public:
    /** Instead of serving the command of this text; an empty one is the greeting. */
    static Fault at(const QByteArray &command) { return {Moment::Command, command}; }
    /** In the data of this command, behind so many bytes; by default behind half of them. */
    static Fault inData(const QByteArray &command, qsizetype offset = -1)
    {
        return {Moment::Data, command, offset};
    }
    /** When the data is out, instead of the final reply. */
    static Fault atEnd(const QByteArray &command) { return {Moment::End, command}; }

    /** The server closes the session, and the data connection with it. */
    Fault close() const { return with(Action::Close); }
    /** The server says this; it ends what it was about. */
    Fault reply(const QByteArray &line) const { return with(Action::Reply, line); }
    /** The server says nothing any more, but listens on. */
    Fault silence() const { return with(Action::Silence); }
    /** The server says these bytes, and nothing more. */
    Fault mumble(const QByteArray &bytes) const { return with(Action::Mumble, bytes); }
    /** The server calls this on its own thread, and goes on when it returns. */
    Fault call(const std::function<void()> &function) const;

    /** The session's command of this number, whatever its text; the greeting has number 0. */
    Fault asNumber(int commandNumber) const;
    /** Lets the command pass so many times in a session. */
    Fault butNotTheFirst(int times) const;

private:
    friend class TreeSession;

    enum class Moment { Command, Data, End };
    enum class Action { None, Close, Reply, Silence, Mumble, Call };

    Fault(Moment when, const QByteArray &line, qsizetype position = -1) :
        moment(when), command(line), offset(position)
    {
    }
    Fault with(Action what, const QByteArray &bytes = {}) const;

    Moment moment;
    QByteArray command;
    qsizetype offset;
    int number = -1;
    int passes = 0;
    Action action = Action::None;
    QByteArray text = {};
    std::function<void()> called = {};
};

struct FtpTreeOptions
{
    enum Listing { Mlsd, Unix, Dos };

    Listing listing = Mlsd;
    bool hasMdtm = true;
    bool hasTls = false; ///< takes AUTH TLS and PROT P, as it is asked
    QList<Fault> faults = {};
    /** Called on the server's thread with each command, before it is served; empty for the greeting. */
    std::function<void(const QByteArray &command)> onCommand = {};
    /** Called on the server's thread with each port for data; gives the one that is told instead. */
    std::function<quint16(quint16 port)> toldPort = {};
};

/**
 * Serves a tree on 127.0.0.1 to one session after the other.
 *
 * It looks paths up by their text and resolves nothing: what a folder lists can be fetched under
 * just that name, be it "../x". It lives on a thread of its own, since the client blocks.
 */
class FtpTreeServer
{
public:
    explicit FtpTreeServer(const RemoteTree &tree, const FtpTreeOptions &options = {});
    ~FtpTreeServer();

    quint16 port() const { return controlPort; }

    /** Waits for the session to end, and ends the server. */
    void finish();

    int sessions() const;
    /** Of all sessions, in order. */
    QByteArrayList commands() const;

private:
    friend class TreeSession;

    struct Record
    {
        int sessions = 0;
        QByteArrayList commands = {};
    };

    mutable std::mutex guard;
    Record record; ///< behind the guard

    std::atomic<bool> finishing = false;
    quint16 controlPort = 0;
    std::future<void> serving;
};
