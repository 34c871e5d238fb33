#include "support/FtpTreeServer.h"

#include "support/TlsListener.h"

#include <QDeadlineTimer>
#include <QHash>
#include <QHostAddress>

#include <memory>
#include <utility>

namespace {

constexpr int kSliceMs = 5;
constexpr int kPatienceMs = 20000; // for a client that ought to do something
constexpr int kGraceMs = 3000;     // the same once the test is over
constexpr qsizetype kChunkBytes = 65536;

QByteArray childPath(const QByteArray &folder, const QByteArray &name)
{
    return folder.endsWith('/') ? folder + name : folder + '/' + name;
}

QByteArray mlsdLine(const RemoteEntry &entry)
{
    QByteArray facts = "type=file;";
    if (entry.kind == RemoteEntry::Folder)
        facts = "type=dir;";
    else if (entry.kind == RemoteEntry::Link)
        facts = "type=OS.unix=slink:/elsewhere;";
    if (!entry.size.isEmpty())
        facts += "size=" + entry.size + ';';
    if (!entry.time.isEmpty())
        facts += "modify=" + entry.time + ';';
    return facts + ' ' + entry.name;
}

QByteArray unixLine(const RemoteEntry &entry)
{
    const QByteArray rest =
        " 1 kim web " + (entry.size.isEmpty() ? "0" : entry.size) + " Jan  2 2020 " + entry.name;
    if (entry.kind == RemoteEntry::Folder)
        return "drwxr-xr-x" + rest;
    if (entry.kind == RemoteEntry::Link)
        return "lrwxrwxrwx" + rest + " -> elsewhere";
    return "-rw-r--r--" + rest;
}

QByteArray dosLine(const RemoteEntry &entry)
{
    const QByteArray what = entry.kind == RemoteEntry::Folder ? "<DIR>" : entry.size;
    return "01-02-20  03:04PM       " + what + ' ' + entry.name;
}

QByteArray listing(const QList<RemoteEntry> &entries, FtpTreeOptions::Listing form)
{
    QByteArray text;
    if (form == FtpTreeOptions::Mlsd)
        text = "type=cdir; .\r\ntype=pdir; ..\r\n";
    else if (form == FtpTreeOptions::Unix)
        text = "total 8\r\ndrwxr-xr-x 1 kim web 0 Jan  2 2020 .\r\ndrwxr-xr-x 1 kim web 0 Jan  2 2020 ..\r\n";
    for (const RemoteEntry &entry : entries) {
        if (entry.kind == RemoteEntry::Line)
            text += entry.name;
        else if (form == FtpTreeOptions::Mlsd)
            text += mlsdLine(entry);
        else
            text += form == FtpTreeOptions::Unix ? unixLine(entry) : dosLine(entry);
        text += "\r\n";
    }
    return text;
}

} // namespace

RemoteEntry remoteFile(const QByteArray &name, const QByteArray &content, const QByteArray &time)
{
    return {RemoteEntry::File, name, content, time, QByteArray::number(content.size())};
}

RemoteEntry remoteFileListedAs(const QByteArray &size, const QByteArray &name, const QByteArray &content,
                               const QByteArray &time)
{
    return {RemoteEntry::File, name, content, time, size};
}

RemoteEntry remoteFolder(const QByteArray &name) { return {RemoteEntry::Folder, name}; }

RemoteEntry remoteLink(const QByteArray &name) { return {RemoteEntry::Link, name}; }

RemoteEntry remoteLine(const QByteArray &line) { return {RemoteEntry::Line, line}; }

Fault Fault::asNumber(int commandNumber) const
{
    Fault changed = *this;
    changed.number = commandNumber;
    return changed;
}

Fault Fault::butNotTheFirst(int times) const
{
    Fault changed = *this;
    changed.passes = times;
    return changed;
}

Fault Fault::call(const std::function<void()> &function) const
{
    Fault changed = with(Action::Call);
    changed.called = function;
    return changed;
}

Fault Fault::with(Action what, const QByteArray &bytes) const
{
    Fault changed = *this;
    changed.action = what;
    changed.text = bytes;
    return changed;
}

/** The server's side of its sessions; lives on the server's thread. What answers false ends the session. */
class TreeSession
{
public:
    TreeSession(FtpTreeServer *owner, const RemoteTree &remoteTree, const FtpTreeOptions &wishes);

    quint16 port() const { return controls.serverPort(); }
    void serveAll();

private:
    using Moment = Fault::Moment;
    using Action = Fault::Action;

    void serveSession();
    bool takeLine(QByteArray *line);
    bool serve(const QByteArray &line);
    bool answer(const QByteArray &line);
    bool changeFolder(const QByteArray &path);
    bool secureControl();
    bool enterPassive(bool extended);
    bool transfer(const QByteArray &bytes);
    bool sendData(const QByteArray &bytes);
    bool commit(const Fault &fault);

    QList<Fault> faultsAt(Moment moment) const;
    bool isMeant(const Fault &fault, Moment moment) const;
    QByteArray absolute(const QByteArray &path) const;
    const RemoteEntry *find(const QByteArray &path) const;

    template <typename Attempt>
    bool await(Attempt attempt) const;
    bool say(const QByteArray &bytes);
    bool write(QSslSocket *peer, const QByteArray &bytes) const;
    bool encrypt(QSslSocket *peer) const;
    void hangUp(QSslSocket *peer) const;

    FtpTreeServer *server;
    const RemoteTree tree;
    const FtpTreeOptions options;
    QHash<QByteArray, RemoteEntry> files; ///< by path

    TlsListener controls;
    std::unique_ptr<QSslSocket> control;
    std::unique_ptr<TlsListener> passive;
    std::unique_ptr<QSslSocket> data;
    QByteArray folder;                ///< the working directory
    QByteArray command;               ///< that is being served; empty for the greeting
    int number = 0;                   ///< of that command in its session
    QHash<QByteArray, int> timesSeen; ///< of commands in this session
    bool isSilent = false;
    bool isDataProtected = false;
};

TreeSession::TreeSession(FtpTreeServer *owner, const RemoteTree &remoteTree, const FtpTreeOptions &wishes) :
    server(owner), tree(remoteTree), options(wishes),
    controls(wishes.hasTls ? serverTls() : QSslConfiguration())
{
    for (auto place = tree.cbegin(); place != tree.cend(); ++place) {
        for (const RemoteEntry &entry : place.value()) {
            if (entry.kind == RemoteEntry::File)
                files.insert(childPath(place.key(), entry.name), entry);
        }
    }
    if (!controls.listen(QHostAddress::LocalHost))
        qFatal("cannot listen on 127.0.0.1");
}

void TreeSession::serveAll()
{
    for (;;) {
        const bool isLastLook = server->finishing;
        if (controls.hasPendingConnections() || controls.waitForNewConnection(isLastLook ? 0 : kSliceMs)) {
            control = controls.take();
            serveSession();
            hangUp(control.get());
            data.reset();
            passive.reset();
        } else if (isLastLook) {
            return;
        }
    }
}

void TreeSession::serveSession()
{
    folder = "/";
    number = 0;
    timesSeen.clear();
    isSilent = false;
    isDataProtected = false;
    {
        const std::lock_guard locked(server->guard);
        ++server->record.sessions;
    }
    QByteArray line;
    if (!serve({}))
        return;
    while (takeLine(&line)) {
        {
            const std::lock_guard locked(server->guard);
            server->record.commands += line;
        }
        ++number;
        if (line == "QUIT" || !serve(line))
            return;
    }
}

bool TreeSession::takeLine(QByteArray *line)
{
    const bool came = await([this] {
        if (!control->canReadLine())
            control->waitForReadyRead(kSliceMs);
        return control->canReadLine() || hasGone(*control);
    });
    if (!came || !control->canReadLine())
        return false;
    *line = control->readLine().chopped(2);
    return true;
}

bool TreeSession::serve(const QByteArray &line)
{
    command = line;
    ++timesSeen[line];
    if (options.onCommand)
        options.onCommand(line);
    const QList<Fault> faults = faultsAt(Moment::Command);
    if (!faults.isEmpty())
        return commit(faults.first());
    return isSilent || (line.isEmpty() ? say("220 ready\r\n") : answer(line));
}

bool TreeSession::answer(const QByteArray &line)
{
    const qsizetype blank = line.indexOf(' ');
    const QByteArray verb = blank < 0 ? line : line.left(blank);
    const QByteArray argument = blank < 0 ? QByteArray() : line.sliced(blank + 1);
    if (verb == "USER")
        return say("331 password?\r\n");
    if (verb == "PASS")
        return say("230 welcome\r\n");
    if (verb == "TYPE")
        return say("200 binary\r\n");
    if (verb == "FEAT") {
        return say(QByteArray("211-I can do\r\n") +
                   (options.listing == FtpTreeOptions::Mlsd ? " MLSD\r\n" : "") +
                   (options.hasMdtm ? " MDTM\r\n" : "") + "211 no more\r\n");
    }
    if (verb == "AUTH" && options.hasTls)
        return secureControl();
    if (verb == "PBSZ" && options.hasTls)
        return say("200 as you wish\r\n");
    if (verb == "PROT" && options.hasTls) {
        isDataProtected = true;
        return say("200 protected\r\n");
    }
    if (verb == "CWD")
        return changeFolder(argument);
    if (verb == "EPSV" || verb == "PASV")
        return enterPassive(verb == "EPSV");
    if (verb == "MLSD" || verb == "LIST")
        return transfer(listing(tree.value(folder), options.listing));
    const RemoteEntry *file = find(argument);
    if (verb == "MDTM")
        return say(file && !file->time.isEmpty() ? "213 " + file->time + "\r\n" : "550 no such file\r\n");
    if (verb == "RETR")
        return file ? transfer(file->content) : say("550 no such file\r\n");
    return say("500 what?\r\n");
}

bool TreeSession::changeFolder(const QByteArray &path)
{
    QByteArray wanted = absolute(path);
    if (wanted.size() > 1 && wanted.endsWith('/'))
        wanted.chop(1);
    if (!tree.contains(wanted))
        return say("550 no such folder\r\n");
    folder = wanted;
    return say("250 here\r\n");
}

bool TreeSession::secureControl() { return say("234 go ahead\r\n") && encrypt(control.get()); }

bool TreeSession::enterPassive(bool extended)
{
    data.reset();
    passive = std::make_unique<TlsListener>(options.hasTls ? serverTls() : QSslConfiguration());
    if (!passive->listen(QHostAddress::LocalHost))
        qFatal("cannot listen on 127.0.0.1");
    const quint16 port = options.toldPort ? options.toldPort(passive->serverPort()) : passive->serverPort();
    if (extended)
        return say("229 passive (|||" + QByteArray::number(port) + "|)\r\n");
    return say("227 passive (127,0,0,1," + QByteArray::number(port / 256) + ',' +
               QByteArray::number(port % 256) + ")\r\n");
}

bool TreeSession::transfer(const QByteArray &bytes)
{
    const bool came = passive && await([this] {
                          return hasGone(*control) || passive->hasPendingConnections() ||
                                 passive->waitForNewConnection(kSliceMs);
                      });
    if (!came || hasGone(*control))
        return say("425 no data connection\r\n");
    data = passive->take();
    if (!say("150 coming\r\n"))
        return false;
    if (isDataProtected)
        encrypt(data.get()); // a client that would not have it has gone, which shows in what follows
    qsizetype sent = 0;
    for (const Fault &fault : faultsAt(Moment::Data)) {
        const qsizetype until = fault.offset < 0 ? bytes.size() / 2 : fault.offset;
        sendData(bytes.sliced(sent, until - sent));
        sent = until;
        if (fault.action == Action::Reply)
            hangUp(data.get());
        if (fault.action != Action::Call)
            return commit(fault);
        fault.called();
    }
    const bool isComplete = sendData(bytes.sliced(sent));
    hangUp(data.get());
    data.reset();
    const QList<Fault> faults = faultsAt(Moment::End);
    if (!faults.isEmpty())
        return commit(faults.first());
    return say(isComplete ? "226 done\r\n" : "426 you have gone\r\n");
}

bool TreeSession::sendData(const QByteArray &bytes)
{
    for (qsizetype sent = 0; sent < bytes.size(); sent += kChunkBytes) {
        if (!write(data.get(), bytes.mid(sent, kChunkBytes)))
            return false;
    }
    return true;
}

/** Does what the fault is about. After a call the command is served all the same. */
bool TreeSession::commit(const Fault &fault)
{
    switch (fault.action) {
    case Action::Reply:
        return say(fault.text + "\r\n");
    case Action::Mumble:
        isSilent = true;
        return say(fault.text);
    case Action::Silence:
        isSilent = true;
        return true;
    case Action::Call:
        fault.called();
        return command.isEmpty() ? say("220 ready\r\n") : answer(command);
    case Action::Close:
    case Action::None:
        break;
    }
    return false;
}

QList<Fault> TreeSession::faultsAt(Moment moment) const
{
    QList<Fault> meant;
    for (const Fault &fault : options.faults) {
        if (isMeant(fault, moment))
            meant += fault;
    }
    return meant;
}

bool TreeSession::isMeant(const Fault &fault, Moment moment) const
{
    if (fault.moment != moment)
        return false;
    if (fault.number >= 0)
        return fault.number == number;
    return fault.command == command && timesSeen.value(command) > fault.passes;
}

QByteArray TreeSession::absolute(const QByteArray &path) const
{
    return path.startsWith('/') ? path : childPath(folder, path);
}

const RemoteEntry *TreeSession::find(const QByteArray &path) const
{
    const auto found = files.constFind(absolute(path));
    return found == files.cend() ? nullptr : &*found;
}

/** Repeats an attempt, which blocks for a slice at most, until it is true. */
template <typename Attempt>
bool TreeSession::await(Attempt attempt) const
{
    const QDeadlineTimer patience(kPatienceMs);
    QDeadlineTimer grace(QDeadlineTimer::Forever);
    while (!attempt()) {
        if (server->finishing && grace.isForever())
            grace.setRemainingTime(kGraceMs);
        if (patience.hasExpired() || grace.hasExpired())
            return false;
    }
    return true;
}

bool TreeSession::say(const QByteArray &bytes) { return write(control.get(), bytes); }

/** False if the peer has gone. */
bool TreeSession::write(QSslSocket *peer, const QByteArray &bytes) const
{
    const auto isPending = [peer] { return peer->bytesToWrite() > 0 || peer->encryptedBytesToWrite() > 0; };
    peer->write(bytes);
    const bool settled = await([peer, isPending] {
        if (isPending())
            peer->waitForBytesWritten(kSliceMs);
        return !isPending() || hasGone(*peer);
    });
    return settled && !hasGone(*peer);
}

bool TreeSession::encrypt(QSslSocket *peer) const
{
    peer->startServerEncryption();
    await([peer] { return peer->waitForEncrypted(kSliceMs) || peer->isEncrypted() || hasGone(*peer); });
    return peer->isEncrypted() && write(peer, {}); // the last word of the handshake may be pending still
}

void TreeSession::hangUp(QSslSocket *peer) const
{
    peer->disconnectFromHost();
    await([peer] {
        return peer->state() == QAbstractSocket::UnconnectedState || peer->waitForDisconnected(kSliceMs) ||
               peer->state() == QAbstractSocket::UnconnectedState;
    });
}

FtpTreeServer::FtpTreeServer(const RemoteTree &tree, const FtpTreeOptions &options)
{
    std::promise<quint16> opened;
    std::future<quint16> port = opened.get_future();
    serving = std::async(std::launch::async, [this, tree, options, told = std::move(opened)]() mutable {
        TreeSession session(this, tree, options);
        told.set_value(session.port());
        session.serveAll();
    });
    controlPort = port.get();
}

FtpTreeServer::~FtpTreeServer() { finish(); }

void FtpTreeServer::finish()
{
    finishing = true;
    if (serving.valid())
        serving.get();
}

int FtpTreeServer::sessions() const
{
    const std::lock_guard locked(guard);
    return record.sessions;
}

QByteArrayList FtpTreeServer::commands() const
{
    const std::lock_guard locked(guard);
    return record.commands;
}
