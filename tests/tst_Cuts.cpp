#include "ftp/FtpClient.h"
#include "support/CutRelay.h"
#include "support/FileTree.h"
#include "support/FtpTreeServer.h"
#include "support/LocalFolder.h"
#include "support/RecordedWorker.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QTest>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 10000; // no cut but silence makes a run wait
constexpr int kSilenceMs = 200;
constexpr int kPauseMs = 2; // keeps what is sent before and after in packets of their own
constexpr int kBusyThreads = 6;
constexpr qint64 kEdgeBytes = 300; // of a large file, which are tried one by one
constexpr qint64 kLargeBytes = 65536;
constexpr qint64 kLargeStride = 4999; // of the others one in so many, or, with all the time there is,
constexpr qint64 kSealedStride = 997; // of those in a record of TLS, which comes whole or not at all
constexpr int kTooMany = 5;           // problems
// The signatures of a handshake vary in length, and the encrypted end of a stream is its last few bytes.
constexpr qint64 kSignatureSlack = 8;
constexpr int kRepetitions = 20;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr qint64 kThinning = 8; // a sanitizer costs so much time
#else
constexpr qint64 kThinning = 1;
#endif

constexpr int kWaitingThreads = 32 / int(kThinning); // for runs that do little but wait

const QByteArray kTime = "20240131120000";
const QByteArray kOldTime = "20200102030405";

/** Whether to leave none out, however long it takes. */
bool triesAll() { return qEnvironmentVariableIntValue("KELPWHARF_ALL_CUTS") != 0; }

QByteArray largeContent()
{
    QByteArray content;
    for (int line = 0; content.size() < 70000; ++line)
        content += "line " + QByteArray::number(line) + '\n';
    return content;
}

/** Three folders and six files; three of the files replace local ones, and one is empty. */
const RemoteTree &remoteTree()
{
    static const RemoteTree tree{
        {"/",
         {remoteFile("new.txt", "a new one", kTime), remoteFolder("sub"), remoteFolder("größe"),
          remoteFile("large.bin", largeContent(), kTime)}},
        {"/sub",
         {remoteFile("b.txt", "the new b, a longer one", kTime), remoteFile("c.txt", "c is new", kTime)}},
        {"/größe", {remoteFile("käse.txt", "fresh", kTime), remoteFile("nothing", "", kTime)}},
    };
    return tree;
}

TreeFile treeFile(const QByteArray &content, const QByteArray &time)
{
    QDateTime modified = QDateTime::fromString(QString::fromLatin1(time), u"yyyyMMddHHmmss"_s);
    modified.setTimeSpec(Qt::UTC);
    return {content, modified};
}

const FileTree &mirroredTree()
{
    static const FileTree tree = [] {
        FileTree files;
        for (auto folder = remoteTree().cbegin(); folder != remoteTree().cend(); ++folder) {
            const QString path =
                folder.key() == "/" ? QString() : QString::fromUtf8(folder.key().sliced(1)) + u'/';
            for (const RemoteEntry &entry : folder.value()) {
                if (entry.kind == RemoteEntry::File)
                    files.insert(path + QString::fromUtf8(entry.name), treeFile(entry.content, kTime));
            }
        }
        return files;
    }();
    return tree;
}

const FileTree &oldTree()
{
    static const FileTree tree{
        {u"large.bin"_s, treeFile("an old one that was not large", kOldTime)},
        {u"sub/b.txt"_s, treeFile("the old b", kOldTime)},
        {u"größe/käse.txt"_s, treeFile("mouldy", kOldTime)},
        {u"extra.txt"_s, treeFile("extra", kOldTime)},
        {u"dropped/inner.txt"_s, treeFile("of a folder that the server has no more", kOldTime)},
        {u"sub/extra.txt"_s, treeFile("extra in sub", kOldTime)},
        {u"größe/extra.txt"_s, treeFile("extra in größe", kOldTime)},
    };
    return tree;
}

/** The remote folder without whose listing this path must stay; empty if it must stay in any case. */
QByteArray prunedWith(const QString &path)
{
    if (mirroredTree().contains(path))
        return {};
    const qsizetype slash = path.lastIndexOf(u'/');
    const QString folder = slash < 0 ? QString() : path.left(slash);
    return folder.isEmpty() || folder == u"dropped" ? "/" : '/' + folder.toUtf8();
}

/** What the server says when a transfer that was cut is over. */
enum class Ending { Aborted, Mute, Complete };

struct Session
{
    bool tls = false;
    FtpTreeOptions::Listing listing = FtpTreeOptions::Mlsd;
};

/** One session as it goes without a cut. */
struct Recording
{
    /** A command with a data connection. Connection 0 is the control connection, so the first has number 1.
     */
    struct Transfer
    {
        QByteArray folder; ///< that it lists; empty for a file
        int commandNumber = 0;
    };

    QString told = {};
    FileTree local = {};
    QList<QByteArray> brought = {};
    QList<Transfer> transfers = {};
};

struct Attempt
{
    Session session = {};
    Cut cut = {};
    int commandNumber = -1; ///< of the transfer whose ending is not as usual
    Ending ending = Ending::Complete;
    QSet<QByteArray> listed = {}; ///< the folders whose listing can have been confirmed
    bool mustFail = false;        ///< once the cut is made
};

struct Outcome
{
    QString told = {};
    FileTree local = {};
    QString harm = {};
    QStringList events = {};
    QByteArrayList commands = {};
    QList<QByteArray> brought = {};
    bool isCut = false;
};

/** Mirrors the tree by way of a relay. */
Outcome mirror(const Attempt &attempt)
{
    CutRelay relay(attempt.cut);
    FtpTreeOptions options{.listing = attempt.session.listing, .hasTls = attempt.session.tls};
    options.toldPort = [&relay](quint16 port) { return relay.forward(port); };
    const Fault end = Fault::atEnd({}).asNumber(attempt.commandNumber);
    if (attempt.ending == Ending::Aborted)
        options.faults = {end.reply("426 that went wrong")};
    else if (attempt.ending == Ending::Mute)
        options.faults = {end.silence()};
    FtpTreeServer server(remoteTree(), options);

    const LocalFolder local;
    writeTree(local.path(), oldTree());
    RecordedWorker recorded(local.path());
    recorded.config.port = relay.forward(server.port());
    recorded.config.useTls = attempt.session.tls;
    recorded.config.deleteExtraneous = true;
    recorded.config.timeout = attempt.cut.kind == Cut::Silence ? kSilenceMs : kPatienceMs;
    Outcome outcome{.told = recorded.run()};
    outcome.local = readTree(local.path());
    outcome.harm = local.harm();
    outcome.events = recorded.events;
    server.finish();
    relay.finish();
    outcome.commands = server.commands();
    outcome.brought = relay.brought();
    outcome.isCut = relay.hasCut();
    return outcome;
}

Recording record(const Session &session)
{
    const Outcome outcome = mirror({session});
    Recording recording{outcome.told, outcome.local, outcome.brought};
    QByteArray folder;
    for (qsizetype i = 0; i < outcome.commands.size(); ++i) {
        const QByteArray &command = outcome.commands.at(i);
        if (command.startsWith("CWD "))
            folder = command.sliced(4);
        const bool isListing = command == "MLSD" || command == "LIST -a";
        if (isListing || command.startsWith("RETR "))
            recording.transfers += {isListing ? folder : QByteArray(), static_cast<int>(i) + 1};
    }
    return recording;
}

/** The folders whose listing the client has seen confirmed, by its log. */
QSet<QByteArray> confirmedFolders(const QStringList &events)
{
    QSet<QByteArray> confirmed;
    QByteArray folder;
    QString previous;
    bool isListing = false;
    for (const QString &event : events) {
        const QString line = event.startsWith(u"log 3 ") ? event.sliced(6) : QString();
        if (line.startsWith(u"> CWD "))
            folder = line.sliced(6).toUtf8();
        if (line.startsWith(u"> "))
            isListing = line == u"> MLSD" || line == u"> LIST -a";
        if (isListing && previous.startsWith(u"< 150 ") && line.startsWith(u"< 226 "))
            confirmed += folder;
        previous = line;
    }
    return confirmed;
}

QString lossOf(const QString &path, const Attempt &attempt, const Outcome &outcome)
{
    const QByteArray folder = prunedWith(path);
    if (folder.isEmpty())
        return path + u" is gone"_s;
    if (!attempt.listed.contains(folder) || !confirmedFolders(outcome.events).contains(folder))
        return path + u" was pruned without a confirmed listing"_s;
    return {};
}

/** Whether the file is, down to its time, the old one or the new one. */
bool isWhole(const QString &path, const TreeFile &file, FtpTreeOptions::Listing listing)
{
    const auto isSame = [&](const FileTree &tree, bool alsoTheTime) {
        const auto found = tree.constFind(path);
        return found != tree.cend() && found->content == file.content &&
               (!alsoTheTime || found->modified == file.modified);
    };
    // With LIST the time is a question of its own, which may go without an answer.
    return isSame(oldTree(), true) || isSame(mirroredTree(), listing == FtpTreeOptions::Mlsd);
}

/** What is wrong after a run; empty if nothing is. */
QString problemOf(const Attempt &attempt, const Outcome &outcome)
{
    for (auto file = outcome.local.cbegin(); file != outcome.local.cend(); ++file) {
        if (!isWhole(file.key(), *file, attempt.session.listing)) // nor has any folder become empty
            return file.key() + u" is neither the old nor the new one"_s;
    }
    for (auto file = oldTree().cbegin(); file != oldTree().cend(); ++file) {
        if (outcome.local.contains(file.key()))
            continue;
        const QString loss = lossOf(file.key(), attempt, outcome);
        if (!loss.isEmpty())
            return loss;
    }
    if (!outcome.harm.isEmpty())
        return outcome.harm;
    // More than one end may well tell a reason each.
    if (outcome.events.filter(QRegularExpression(u"^finished "_s)).size() != 1 ||
        !outcome.events.last().startsWith(u"finished "_s))
        return u"there was not one end, and nothing behind it"_s;
    const bool succeeded = outcome.told.startsWith(u"success ");
    if (!succeeded && !outcome.told.contains(u"message='"))
        return u"no reason was told"_s;
    if (succeeded && outcome.isCut && attempt.mustFail)
        return u"the cut went unnoticed"_s;
    if (succeeded && outcome.local.keys() != mirroredTree().keys())
        return u"a success that has not mirrored everything"_s;
    if (attempt.cut.kind != Cut::Silence && !outcome.events.filter(u"Timed out"_s).isEmpty())
        return u"the cut was noticed only by a time-out"_s;
    return {};
}

QString describe(const Attempt &attempt, const Outcome &outcome)
{
    return u"%1, connection %2 %3 behind %4 bytes, ended with: %5\n%6"_s.arg(
        attempt.session.tls ? u"TLS"_s : u"plain"_s, QString::number(attempt.cut.connection),
        outcome.isCut ? u"cut"_s : u"to be cut"_s, QString::number(attempt.cut.offset), outcome.told,
        outcome.events.join(u'\n'));
}

/** Calls `work` with every number below `count` on so many threads, until it answers false. */
template <typename Work>
void share(int threads, size_t count, Work work)
{
    std::atomic<size_t> next = 0;
    std::vector<std::future<void>> working;
    for (int i = 0; i < threads; ++i) {
        working.push_back(std::async(std::launch::async, [&] {
            for (size_t number = next++; number < count; number = next++) {
                if (!work(number))
                    next = count;
            }
        }));
    }
    for (std::future<void> &done : working)
        done.get();
}

/** A busy machine makes a run with a short time-out fail before it comes to its cut; then it is made again.
 */
Outcome mirrorUntilCut(const Attempt &attempt)
{
    Outcome outcome = mirror(attempt);
    for (int i = 0; i < kRepetitions && attempt.cut.kind == Cut::Silence && !outcome.isCut; ++i)
        outcome = mirror(attempt);
    return outcome;
}

/** Makes all attempts and tells how they went wrong. */
QString problemsOf(const std::vector<Attempt> &attempts)
{
    std::mutex guard;
    QStringList problems;
    std::atomic<int> cuts = 0;
    QElapsedTimer clock;
    clock.start();
    const bool mostlyWaits = !attempts.empty() && attempts.front().cut.kind == Cut::Silence;
    share(mostlyWaits ? kWaitingThreads : kBusyThreads, attempts.size(), [&](size_t number) {
        const Attempt &attempt = attempts.at(number);
        const Outcome outcome = mirrorUntilCut(attempt);
        cuts += outcome.isCut ? 1 : 0;
        const QString problem = problemOf(attempt, outcome);
        if (problem.isEmpty())
            return true;
        const std::lock_guard locked(guard);
        problems += problem + u"; "_s + describe(attempt, outcome);
        return problems.size() < kTooMany;
    });
    qInfo("%d cuts in %.1f s", cuts.load(), static_cast<double>(clock.elapsed()) / 1000.0);
    // At the very end the client may have gone first.
    const auto wanted = static_cast<int>(attempts.size());
    if (problems.isEmpty() && (wanted == 0 || cuts < wanted - wanted / 20 - 1))
        problems += u"only %1 of %2 cuts were made"_s.arg(QString::number(cuts), QString::number(wanted));
    return problems.join(u"\n\n");
}

/** The places in so many bytes of a session behind which there are cuts. */
QList<qint64> places(const Session &session, qint64 from, qint64 until, qint64 step)
{
    const qint64 stride = triesAll() ? 1 : step * kThinning;
    const qint64 largeStride = !triesAll() ? std::max(stride, kLargeStride) : session.tls ? kSealedStride : 1;
    const qint64 edge = until - from > kLargeBytes ? kEdgeBytes : until - from;
    QList<qint64> chosen;
    for (qint64 place = from; place < until;) {
        chosen += place;
        const bool isInside = place >= from + edge && place < until - edge;
        place = isInside ? std::min(place + largeStride, until - edge) : place + stride;
    }
    return chosen;
}

/** The folders whose listing is confirmed by a transfer before this one. */
QSet<QByteArray> listedBefore(const QList<Recording::Transfer> &transfers, qsizetype number)
{
    QSet<QByteArray> listed;
    for (const Recording::Transfer &transfer : transfers.first(number))
        listed += transfer.folder;
    return listed;
}

/** Cuts in the control connection. */
std::vector<Attempt> controlCuts(const Session &session, Cut::Kind kind, qint64 step)
{
    const Recording recording = record(session);
    const QByteArray &said = recording.brought.first();
    std::vector<Attempt> attempts;
    for (const qint64 place : places(session, 0, said.size(), step)) {
        Attempt attempt{session, {kind, 0, place}};
        // Of an encrypted conversation only the log tells what was said until then.
        const qsizetype confirmed =
            session.tls ? recording.transfers.size() : said.first(place).count("226 done\r\n");
        attempt.listed = listedBefore(recording.transfers, confirmed);
        attempt.mustFail = !session.tls;
        attempts.push_back(attempt);
    }
    return attempts;
}

/** Cuts in the data connections of listings, files or both. */
std::vector<Attempt> dataCuts(const Session &session, Cut::Kind kind, Ending ending, qint64 step,
                              bool ofListings = true)
{
    const Recording recording = record(session);
    std::vector<Attempt> attempts;
    for (qsizetype i = 0; i < recording.transfers.size(); ++i) {
        const Recording::Transfer &transfer = recording.transfers.at(i);
        if (!ofListings && !transfer.folder.isEmpty())
            continue;
        const qint64 size = recording.brought.at(i + 1).size();
        // Behind the last byte, only what the server says then shows that something is wrong.
        const qint64 until = kind == Cut::Close && ending == Ending::Complete ? size : size + 1;
        for (const qint64 place : places(session, 0, until, step)) {
            Attempt attempt{session, {kind, static_cast<int>(i) + 1, place}, transfer.commandNumber, ending};
            attempt.mustFail = !session.tls || ending != Ending::Complete;
            attempt.listed = listedBefore(recording.transfers, recording.transfers.size());
            const bool mayBeWhole = session.tls && place >= size - kSignatureSlack;
            if (!mayBeWhole)
                attempt.listed -= transfer.folder;
            attempts.push_back(attempt);
        }
    }
    return attempts;
}

// Listings in pieces

const RemoteTree &namesTree()
{
    static const RemoteTree tree{{"/",
                                  {remoteFile("größe.txt", "12345", kTime), remoteFolder("größer als 10 €"),
                                   remoteFile("𝄞 clef", "", kTime), remoteLink("neither here nor there"),
                                   remoteFile("z", "1", kTime)}}};
    return tree;
}

QStringList namesListed(FtpTreeOptions::Listing listing)
{
    const QString time = listing == FtpTreeOptions::Mlsd ? u"2024-01-31T12:00:00Z"_s : QString();
    const QString otherSize = listing == FtpTreeOptions::Mlsd ? u"-1"_s : u"0"_s;
    return {u"größe.txt, 5, "_s + time, u"größer als 10 €/, "_s + otherSize + u", "_s,
            u"𝄞 clef, 0, "_s + time, u"neither here nor there@, "_s + otherSize + u", "_s,
            u"z, 1, "_s + time};
}

/** What the client makes of the listing. The server's data are cut in two by the relay, and behind `offset`.
 */
QStringList listedNames(const Session &session, const Cut &cut, qsizetype offset, QList<QByteArray> *brought)
{
    CutRelay relay(cut);
    FtpTreeOptions options{.listing = session.listing, .hasMdtm = false, .hasTls = session.tls};
    options.toldPort = [&relay](quint16 port) { return relay.forward(port); };
    if (offset >= 0) {
        const QByteArray command = session.listing == FtpTreeOptions::Mlsd ? "MLSD" : "LIST -a";
        options.faults = {Fault::inData(command, offset).call([] { QThread::msleep(kPauseMs); })};
    }
    FtpTreeServer server(namesTree(), options);

    FtpClient client;
    client.setTimeoutMs(kPatienceMs);
    client.setTlsOptions(session.tls, true);
    QList<FtpEntry> entries;
    if (!client.connectAndLogin(u"127.0.0.1"_s, relay.forward(server.port()), u"kim"_s, u"secret"_s) ||
        !client.list(u"/"_s, &entries))
        return {client.lastError()};
    client.close();
    server.finish();
    relay.finish();
    if (brought)
        *brought = relay.brought();
    QStringList names;
    for (const FtpEntry &entry : std::as_const(entries)) {
        const QString kind = entry.isDir ? u"/"_s : entry.isSymlink ? u"@"_s : QString();
        names += u"%1%2, %3, %4"_s.arg(entry.name, kind, QString::number(entry.size),
                                       entry.modified.toString(Qt::ISODate));
    }
    return names;
}

void addSessions()
{
    QTest::addColumn<Session>("session");
    QTest::newRow("plain, MLSD") << Session{false, FtpTreeOptions::Mlsd};
    QTest::newRow("plain, LIST") << Session{false, FtpTreeOptions::Unix};
    QTest::newRow("TLS, MLSD") << Session{true, FtpTreeOptions::Mlsd};
    QTest::newRow("TLS, LIST") << Session{true, FtpTreeOptions::Unix};
}

} // namespace

class TestCuts : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void withoutACutEverythingIsMirrored_data() { addSessions(); }
    void withoutACutEverythingIsMirrored();
    void theControlConnectionIsClosed_data() { addSessions(); }
    void theControlConnectionIsClosed();
    void theControlConnectionIsReset_data() { addSessions(); }
    void theControlConnectionIsReset();
    void aDataConnectionIsClosed_data() { addSessions(); }
    void aDataConnectionIsClosed();
    void aFileIsCutButCalledComplete_data() { addSessions(); }
    void aFileIsCutButCalledComplete();
    void theWholeServerGoesInTheMiddleOfData_data() { addSessions(); }
    void theWholeServerGoesInTheMiddleOfData();
    void silenceOfAConnectionOrOfTheWholeServer();
    void aListingInTwoPiecesIsTheSame_data() { addSessions(); }
    void aListingInTwoPiecesIsTheSame();
};

/** Thousands of folders are made and deleted, which is a matter for memory, not for a disk. */
void TestCuts::initTestCase()
{
    const QFileInfo memory(u"/dev/shm"_s);
    if (memory.isDir() && memory.isWritable())
        qputenv("TMPDIR", "/dev/shm");
}

void TestCuts::withoutACutEverythingIsMirrored()
{
    QFETCH(const Session, session);
    const Recording recording = record(session);
    qint64 bytes = 0;
    for (const TreeFile &file : mirroredTree())
        bytes += file.content.size();
    QCOMPARE(recording.told, u"success downloaded=6 deleted=4 bytes=%1"_s.arg(bytes));
    QCOMPARE(treeDifference(mirroredTree(), recording.local), QString());
    QCOMPARE(recording.transfers.size(), qsizetype(9));
    QCOMPARE(recording.brought.size(), qsizetype(10));
    QCOMPARE(recording.brought.first().contains("226 done"), !session.tls);
}

void TestCuts::theControlConnectionIsClosed()
{
    QFETCH(const Session, session);
    const auto attempts = controlCuts(session, Cut::Close, session.tls ? 29 : 1);
    const QString problems = problemsOf(attempts);
    QVERIFY2(problems.isEmpty(), qPrintable(problems));
}

void TestCuts::theControlConnectionIsReset()
{
    QFETCH(const Session, session);
    const auto attempts = controlCuts(session, Cut::Reset, session.tls ? 97 : 11);
    const QString problems = problemsOf(attempts);
    QVERIFY2(problems.isEmpty(), qPrintable(problems));
}

void TestCuts::aDataConnectionIsClosed()
{
    QFETCH(const Session, session);
    // Files come in the same way, however the folders are listed.
    const qint64 step = session.tls ? 199 : session.listing == FtpTreeOptions::Mlsd ? 2 : 5;
    const auto attempts = dataCuts(session, Cut::Close, Ending::Aborted, step);
    const QString problems = problemsOf(attempts);
    QVERIFY2(problems.isEmpty(), qPrintable(problems));
}

/** The size that was listed gives such a server away. */
void TestCuts::aFileIsCutButCalledComplete()
{
    QFETCH(const Session, session);
    const auto attempts = dataCuts(session, Cut::Close, Ending::Complete, session.tls ? 499 : 11, false);
    const QString problems = problemsOf(attempts);
    QVERIFY2(problems.isEmpty(), qPrintable(problems));
}

void TestCuts::theWholeServerGoesInTheMiddleOfData()
{
    QFETCH(const Session, session);
    const auto attempts = dataCuts(session, Cut::CloseAll, Ending::Mute, session.tls ? 299 : 7);
    const QString problems = problemsOf(attempts);
    QVERIFY2(problems.isEmpty(), qPrintable(problems));
}

/** All in one go, since such runs do little but wait. */
void TestCuts::silenceOfAConnectionOrOfTheWholeServer()
{
    std::vector<Attempt> attempts;
    const auto add = [&attempts](const std::vector<Attempt> &more) {
        attempts.insert(attempts.end(), more.begin(), more.end());
    };
    for (const bool tls : {true, false}) {
        for (const auto listing : {FtpTreeOptions::Mlsd, FtpTreeOptions::Unix}) {
            const Session session{tls, listing};
            add(controlCuts(session, Cut::Silence, tls ? 149 : 17));
            // The final reply comes all the same, and is taken for the answer to whatever is asked next.
            add(dataCuts(session, Cut::Silence, Ending::Complete, tls ? 799 : 29));
            add(dataCuts(session, Cut::Silence, Ending::Mute, tls ? 999 : 53));
        }
    }
    const QString problems = problemsOf(attempts);
    QVERIFY2(problems.isEmpty(), qPrintable(problems));
}

/** Cut on the wire, in the middle of letters, line ends and TLS records; and between TLS records as well. */
void TestCuts::aListingInTwoPiecesIsTheSame()
{
    QFETCH(const Session, session);
    const QStringList expected = namesListed(session.listing);
    QList<QByteArray> brought;
    QCOMPARE(listedNames(session, {}, -1, &brought).join(u'\n'), expected.join(u'\n'));
    QCOMPARE(brought.size(), qsizetype(2));
    QList<QByteArray> plainly;
    listedNames({false, session.listing}, {}, -1, &plainly);
    const qsizetype length = plainly.last().size();
    QCOMPARE(plainly.last().count("\r\n"), session.listing == FtpTreeOptions::Mlsd ? 7 : 8);

    struct Split
    {
        Cut cut = {};
        qsizetype offset = -1;
    };
    std::vector<Split> splits;
    for (const qint64 place : places(session, 1, brought.last().size(), session.tls ? 23 : 1))
        splits.push_back({.cut = {Cut::Pause, 1, place}});
    for (const qint64 place : places(session, 1, length, session.tls ? 3 : length))
        splits.push_back({.offset = place});

    std::mutex guard;
    QStringList problems;
    share(kBusyThreads, splits.size(), [&](size_t number) {
        const Split &split = splits.at(number);
        const QStringList names = listedNames(session, split.cut, split.offset, nullptr);
        if (names == expected)
            return true;
        const std::lock_guard locked(guard);
        problems += u"split at %1, %2: %3"_s.arg(QString::number(split.cut.offset),
                                                 QString::number(split.offset), names.join(u'\n'));
        return problems.size() < kTooMany;
    });
    qInfo("%zu splits", splits.size());
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join(u"\n\n")));
}

int main(int argc, char *argv[])
{
    if (triesAll())
        qputenv("QTEST_FUNCTION_TIMEOUT", QByteArray::number(24 * 60 * 60 * 1000));
    const QCoreApplication application(argc, argv);
    TestCuts test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Cuts.moc"
