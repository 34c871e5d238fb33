#include "mirror/MirrorWorker.h"
#include "support/FtpTreeServer.h"
#include "support/LocalFolder.h"
#include "support/LocalZone.h"
#include "support/RecordedWorker.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <filesystem>

#ifdef Q_OS_LINUX
#include <sys/mount.h>
#endif

using namespace Qt::StringLiterals;

namespace {

const QByteArray kTime = "20240131120000";

const QByteArrayList kLogin = {"USER kim", "PASS secret", "FEAT"};

/** What a run says of files and folders, without the lines that frame it. */
QStringList decisions(const RecordedWorker &recorded)
{
    QStringList lines;
    for (const QString &event : recorded.eventsOf({u"log 0"_s, u"log 1"_s, u"log 2"_s})) {
        if (!event.startsWith(u"log 0 Mirroring") && !event.startsWith(u"log 0 Finished"))
            lines += event.sliced(4);
    }
    return lines;
}

} // namespace

class TestMirroring : public QObject
{
    Q_OBJECT

private slots:
    void filesAreComparedAsConfigured_data();
    void filesAreComparedAsConfigured();
    void fractionsOfASecondCount();
    void aFileFromTheBeginningOfTimeIsOld_data();
    void aFileFromTheBeginningOfTimeIsOld();
    void aDownloadIsAnnounced();

    void theWalkFollowsTheListing();
    void commandsOfAListingWithoutTimes();
    void commandsOfAListingWithTimesAskedFor();
    void theRemoteFolderIsUsedAsItStands_data();
    void theRemoteFolderIsUsedAsItStands();

    void excludedNamesAreLeftAlone();
    void linksAreNotFollowed();
    void aNameThatIsExcludedIsNotLookedAtFurther();
    void withoutRecursionSubfoldersAreOnlyKept();
    void sixtyFiveLevelsAreServed();
    void theDepthLimitIsNoFailure();

    void theSecondRunFetchesNothing_data();
    void theSecondRunFetchesNothing();
    void withoutTimesFilesKeepTheTimeOfWriting();
    void aChangedFileIsFetchedAgain();
    void unknownFilesAreFetchedOnEveryRun();
    void timesOfTheHourThatAClockChangeSkips_data();
    void timesOfTheHourThatAClockChangeSkips();

    void whatFailsAndHowItGoesOn_data();
    void whatFailsAndHowItGoesOn();
    void anIncompleteFileLeavesTheOldOneInPlace_data();
    void anIncompleteFileLeavesTheOldOneInPlace();
    void aFolderThatIsNotListedIsMadeAllTheSame();
    void theLastFailedFolderIsTheMessage();
    void anEmptyListingIsAnEmptyFolder_data();
    void anEmptyListingIsAnEmptyFolder();
    void aStopInAnEndlessListing();

    void aFileWhereAFolderMustGo();
    void aFolderWhereAFileMustGo();
    void aFolderInPlaceOfAWorkingFile();
    void aStaleWorkingFileIsOverwritten();
    void anUnwritableFolder();
    void anUnwritableParent();
    void namesThatDifferInCaseOnly();
    void aFullDisk_data();
    void aFullDisk();
};

void TestMirroring::filesAreComparedAsConfigured_data()
{
    QTest::addColumn<bool>("exists");
    QTest::addColumn<int>("syncMode");
    QTest::addColumn<int>("compareBy");
    QTest::addColumn<QByteArray>("size");
    QTest::addColumn<QByteArray>("time");
    QTest::addColumn<QString>("reason");
    const QByteArray same = "20240131120000"; // of the local file, which has 5 bytes
    const QByteArray newer = "20240131120003";
    const QByteArray older = "20230131120000";
    const QByteArray none;
    const QString upToDate;
    const auto missing = [](const char *what, int syncMode, const QByteArray &size, const QByteArray &time) {
        QTest::newRow(what) << false << syncMode << int(SizeAndTimestamp) << size << time << u"new"_s;
    };
    missing("missing, new and changed", NewAndChanged, "5", same);
    missing("missing, new only", NewOnly, "5", same);
    missing("missing, full sync", FullSync, "5", same);
    missing("missing, unknown mode", 7, "5", same);
    missing("missing, nothing known", NewAndChanged, none, none);

    const auto modes = [](const char *what, int syncMode, const QByteArray &size, const QByteArray &time,
                          const QString &reason) {
        QTest::newRow(what) << true << syncMode << int(SizeAndTimestamp) << size << time << reason;
    };
    modes("full sync, the same", FullSync, "5", same, u"full re-sync"_s);
    modes("full sync, larger and newer", FullSync, "6", newer, u"full re-sync"_s);
    modes("full sync, nothing known", FullSync, none, none, u"full re-sync"_s);
    modes("new only, the same", NewOnly, "5", same, upToDate);
    modes("new only, larger and newer", NewOnly, "6", newer, upToDate);
    modes("new only, nothing known", NewOnly, none, none, upToDate);
    modes("unknown mode, larger and newer", 3, "6", newer, upToDate);
    modes("negative mode, larger and newer", -1, "6", newer, upToDate);

    const auto row = [](const char *what, int compareBy, const QByteArray &size, const QByteArray &time,
                        const QString &reason) {
        QTest::newRow(what) << true << int(NewAndChanged) << compareBy << size << time << reason;
    };
    row("both, the same", SizeAndTimestamp, "5", same, upToDate);
    row("both, larger", SizeAndTimestamp, "6", same, u"size changed"_s);
    row("both, smaller and older", SizeAndTimestamp, "4", older, u"size changed"_s);
    row("both, empty", SizeAndTimestamp, "0", same, u"size changed"_s);
    row("both, newer", SizeAndTimestamp, "5", newer, u"newer on server"_s);
    row("both, larger and newer", SizeAndTimestamp, "6", newer, u"size changed"_s);
    row("both, older", SizeAndTimestamp, "5", older, upToDate);
    row("both, size unknown, same time", SizeAndTimestamp, none, same, upToDate);
    row("both, size unknown, newer", SizeAndTimestamp, none, newer, u"newer on server"_s);
    row("both, time unknown, larger", SizeAndTimestamp, "6", none, u"size changed"_s);
    row("both, time unknown, empty", SizeAndTimestamp, "0", none, u"size changed"_s);
    row("both, time unknown, same size", SizeAndTimestamp, "5", none, upToDate);
    row("both, nothing known", SizeAndTimestamp, none, none, u"no size or timestamp available"_s);

    row("one second newer", SizeAndTimestamp, "5", "20240131120001", upToDate);
    row("two seconds newer", SizeAndTimestamp, "5", "20240131120002", upToDate);
    row("three seconds newer", SizeAndTimestamp, "5", "20240131120003", u"newer on server"_s);
    row("three seconds older", SizeAndTimestamp, "5", "20240131115957", upToDate);
    row("two seconds newer, by time", TimestampOnly, "5", "20240131120002", upToDate);
    row("three seconds newer, by time", TimestampOnly, "5", "20240131120003", u"newer on server"_s);
    row("years older", SizeAndTimestamp, "5", "19990131120000", upToDate);

    row("size, the same", SizeOnly, "5", same, upToDate);
    row("size, larger", SizeOnly, "6", same, u"size changed"_s);
    row("size, smaller and older", SizeOnly, "4", older, u"size changed"_s);
    row("size, newer", SizeOnly, "5", "20300131120000", upToDate);
    row("size, size unknown, newer", SizeOnly, none, newer, upToDate);
    row("size, time unknown, larger", SizeOnly, "6", none, u"size changed"_s);
    row("size, time unknown, same size", SizeOnly, "5", none, upToDate);
    row("size, nothing known", SizeOnly, none, none, u"no size or timestamp available"_s);

    row("time, the same", TimestampOnly, "5", same, upToDate);
    row("time, larger", TimestampOnly, "6", same, upToDate);
    row("time, newer", TimestampOnly, "5", newer, u"newer on server"_s);
    row("time, larger and newer", TimestampOnly, "6", newer, u"newer on server"_s);
    row("time, older", TimestampOnly, "6", older, upToDate);
    row("time, size unknown, newer", TimestampOnly, none, newer, u"newer on server"_s);
    row("time, time unknown, larger", TimestampOnly, "6", none, upToDate);
    row("time, time unknown, empty", TimestampOnly, "0", none, upToDate);
    row("time, nothing known", TimestampOnly, none, none, u"no size or timestamp available"_s);

    row("unknown comparison, larger and newer", 3, "6", newer, upToDate);
    row("unknown comparison, time unknown", 3, "5", none, upToDate);
    row("unknown comparison, time unknown, larger", 3, "6", none, upToDate);
    row("unknown comparison, nothing known", 3, none, none, u"no size or timestamp available"_s);
    row("unreadable time, same size", SizeAndTimestamp, "5", "20249931120000", upToDate);
}

void TestMirroring::filesAreComparedAsConfigured()
{
    QFETCH(const bool, exists);
    QFETCH(const int, syncMode);
    QFETCH(const int, compareBy);
    QFETCH(const QByteArray, size);
    QFETCH(const QByteArray, time);
    QFETCH(const QString, reason);
    LocalFolder local;
    if (exists) {
        plant(local.path(), {u"a.txt: local"_s});
        setFileTime(local.filePath(u"a.txt"_s), kTime);
    }
    RecordedWorker recorded(local.path());
    recorded.config.syncMode = syncMode;
    recorded.config.compareBy = compareBy;
    const QByteArray content = size.isEmpty() ? "remote" : QByteArray(size.toInt(), 'r');
    recorded.mirror({{"/", {remoteFileListedAs(size, "a.txt", content, time)}}});

    // The listing is all that a decision takes, so nothing more is asked of the server.
    QByteArrayList commands = kLogin + QByteArrayList{"CWD /", "TYPE I", "EPSV", "MLSD"};
    if (reason.isEmpty()) {
        QCOMPARE(recorded.events.last(), u"finished success upToDate=1"_s);
        QCOMPARE(decisions(recorded), QStringList());
        QCOMPARE(local.read(), QStringList{u"a.txt: local"_s});
        QCOMPARE(fileTime(local.filePath(u"a.txt"_s)), kTime);
    } else {
        QVERIFY(recorded.events.last().startsWith(u"finished success downloaded=1"));
        QCOMPARE(decisions(recorded), QStringList{u"0 Downloading /a.txt (%1)"_s.arg(reason)});
        QCOMPARE(local.read(), QStringList{u"a.txt: "_s + QString::fromLatin1(content)});
        if (!time.isEmpty())
            QCOMPARE(fileTime(local.filePath(u"a.txt"_s)), time);
        commands += QByteArrayList{"EPSV", "RETR /a.txt"};
    }
    QCOMPARE(recorded.commands, commands + QByteArrayList{"QUIT"});
}

void TestMirroring::fractionsOfASecondCount()
{
    LocalFolder local({u"a.txt: local"_s});
    QFile file(local.filePath(u"a.txt"_s));
    const QDateTime time(QDate(2024, 1, 31), QTime(12, 0, 0, 900), Qt::UTC);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QVERIFY(file.setFileTime(time, QFileDevice::FileModificationTime));
    file.close();
    RecordedWorker recorded(local.path());
    recorded.mirror({{"/", {remoteFileListedAs("5", "a.txt", "other", "20240131120003")}}});
    QCOMPARE(recorded.events.last(), u"finished success upToDate=1"_s); // 2.1 seconds are 2 whole ones
}

void TestMirroring::aFileFromTheBeginningOfTimeIsOld_data()
{
    QTest::addColumn<QByteArray>("time");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("the same") << QByteArray("19700101000000") << QStringList();
    QTest::newRow("two seconds newer") << QByteArray("19700101000002") << QStringList();
    QTest::newRow("three seconds newer")
        << QByteArray("19700101000003") << QStringList{u"0 Downloading /a.txt (newer on server)"_s};
    QTest::newRow("older") << QByteArray("19691231235950") << QStringList();
}

void TestMirroring::aFileFromTheBeginningOfTimeIsOld()
{
#ifndef Q_OS_LINUX
    QSKIP("Qt takes this time for none");
#endif
    QFETCH(const QByteArray, time);
    QFETCH(const QStringList, expected);
    LocalFolder local({u"a.txt: local"_s});
    setFileTime(local.filePath(u"a.txt"_s), "19700101000000");
    RecordedWorker recorded(local.path());
    recorded.mirror({{"/", {remoteFileListedAs("5", "a.txt", "other", time)}}});
    QCOMPARE(decisions(recorded), expected);
    // A second run finds the file as the first one dated it.
    recorded.mirror({{"/", {remoteFileListedAs("5", "a.txt", "other", time)}}});
    QCOMPARE(decisions(recorded), QStringList());
}

void TestMirroring::aDownloadIsAnnounced()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.mirror(
        {{"/", {remoteFolder("sub")}}, {"/sub", {remoteFileListedAs("9", "a b.txt", "123", kTime)}}});
    const QStringList expected = {
        u"progress 'a b.txt' 0 9"_s,
        u"status 3 'a b.txt'"_s,
        u"log 0 Downloading /sub/a b.txt (new)"_s,
    };
    const qsizetype begin = recorded.events.indexOf(expected[0]);
    QVERIFY(begin > 0);
    QCOMPARE(recorded.events.sliced(begin, 3), expected);
    QCOMPARE(
        recorded.log(2),
        QStringList{u"Failed: /sub/a b.txt (Size mismatch for '/sub/a b.txt': expected 9 bytes, got 3)"_s});
}

// The walk

void TestMirroring::theWalkFollowsTheListing()
{
    const RemoteTree tree{
        {"/pub",
         {remoteFile("z", "1", kTime), remoteFolder("two"), remoteFile("m", "2", kTime), remoteFolder("one"),
          remoteFile("a", "3", kTime)}},
        {"/pub/two", {remoteFolder("in"), remoteFile("x", "4", kTime)}},
        {"/pub/two/in", {remoteFile("q", "5", kTime)}},
        {"/pub/one", {}},
    };
    LocalFolder local({u"extra: x"_s, u"two/extra: x"_s, u"two/in/extra: x"_s, u"one/extra: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.remoteDir = u"/pub"_s;
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree), u"success downloaded=5 deleted=4 bytes=5"_s);
    const QStringList expected = {
        u"0 Downloading /pub/z (new)"_s,   u"0 Downloading /pub/two/in/q (new)"_s,
        u"0 Deleted LOCAL/two/in/extra"_s, u"0 Downloading /pub/two/x (new)"_s,
        u"0 Deleted LOCAL/two/extra"_s,    u"0 Downloading /pub/m (new)"_s,
        u"0 Deleted LOCAL/one/extra"_s,    u"0 Downloading /pub/a (new)"_s,
        u"0 Deleted LOCAL/extra"_s,
    };
    QCOMPARE(decisions(recorded), expected);
    const QByteArrayList commands = {
        "CWD /pub",
        "TYPE I",
        "EPSV",
        "MLSD",
        "EPSV",
        "RETR /pub/z", //
        "CWD /pub/two",
        "EPSV",
        "MLSD", //
        "CWD /pub/two/in",
        "EPSV",
        "MLSD",
        "EPSV",
        "RETR /pub/two/in/q", //
        "EPSV",
        "RETR /pub/two/x",
        "EPSV",
        "RETR /pub/m", //
        "CWD /pub/one",
        "EPSV",
        "MLSD",
        "EPSV",
        "RETR /pub/a", //
        "QUIT",
    };
    QCOMPARE(recorded.commands, kLogin + commands);
    QCOMPARE(local.read(),
             sorted({u"z: 1"_s, u"m: 2"_s, u"a: 3"_s, u"one/"_s, u"two/x: 4"_s, u"two/in/q: 5"_s}));
}

void TestMirroring::commandsOfAListingWithoutTimes()
{
    const RemoteTree tree{{"/", {remoteFile("a", "1"), remoteFolder("sub")}},
                          {"/sub", {remoteFile("b", "2")}}};
    for (const auto form : {FtpTreeOptions::Unix, FtpTreeOptions::Dos}) {
        LocalFolder local;
        RecordedWorker recorded(local.path());
        QCOMPARE(recorded.mirror(tree, {.listing = form, .hasMdtm = false}),
                 u"success downloaded=2 bytes=2"_s);
        const QByteArrayList commands = {"CWD /",    "TYPE I", "EPSV",    "LIST -a", "EPSV",        "RETR /a",
                                         "CWD /sub", "EPSV",   "LIST -a", "EPSV",    "RETR /sub/b", "QUIT"};
        QCOMPARE(recorded.commands, kLogin + commands);
    }
}

void TestMirroring::commandsOfAListingWithTimesAskedFor()
{
    const RemoteTree tree{
        {"/", {remoteFile("a", "1", kTime), remoteFolder("sub"), remoteFile("c", "3", kTime)}},
        {"/sub", {remoteFile("b", "2", kTime)}}};
    LocalFolder local;
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror(tree, {.listing = FtpTreeOptions::Unix}), u"success downloaded=3 bytes=3"_s);
    const QByteArrayList commands = {
        "CWD /",    "TYPE I", "EPSV",    "LIST -a", "MDTM a", "MDTM c",      "EPSV", "RETR /a", //
        "CWD /sub", "EPSV",   "LIST -a", "MDTM b",  "EPSV",   "RETR /sub/b", "EPSV", "RETR /c", "QUIT",
    };
    QCOMPARE(recorded.commands, kLogin + commands);
    for (const QString &name : {u"a"_s, u"c"_s, u"sub/b"_s})
        QCOMPARE(fileTime(local.filePath(name)), kTime);
}

void TestMirroring::theRemoteFolderIsUsedAsItStands_data()
{
    QTest::addColumn<QString>("remoteDir");
    QTest::addColumn<QByteArrayList>("commands");
    QTest::addColumn<QString>("told");
    QTest::newRow("root") << u"/"_s << QByteArrayList{"CWD /",       "RETR /top",    "CWD /pub",
                                                      "RETR /pub/a", "CWD /pub/sub", "RETR /pub/sub/b"}
                          << u"success downloaded=3 bytes=3"_s;
    QTest::newRow("absolute") << u"/pub"_s
                              << QByteArrayList{"CWD /pub", "RETR /pub/a", "CWD /pub/sub", "RETR /pub/sub/b"}
                              << u"success downloaded=2 bytes=2"_s;
    QTest::newRow("with a slash at its end")
        << u"/pub/"_s << QByteArrayList{"CWD /pub/", "RETR /pub/a", "CWD /pub/sub", "RETR /pub/sub/b"}
        << u"success downloaded=2 bytes=2"_s;
    QTest::newRow("relative, which works for the listing only")
        << u"pub"_s << QByteArrayList{"CWD pub", "RETR pub/a", "CWD pub/sub"}
        << u"failed=2 message='Cannot change to remote directory 'pub/sub''"_s;
}

void TestMirroring::theRemoteFolderIsUsedAsItStands()
{
    QFETCH(const QString, remoteDir);
    QFETCH(const QByteArrayList, commands);
    QFETCH(const QString, told);
    const RemoteTree tree{{"/", {remoteFile("top", "0"), remoteFolder("pub")}},
                          {"/pub", {remoteFile("a", "1"), remoteFolder("sub")}},
                          {"/pub/sub", {remoteFile("b", "2")}}};
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.remoteDir = remoteDir;
    QCOMPARE(recorded.mirror(tree), told);
    QByteArrayList paths;
    for (const QByteArray &command : std::as_const(recorded.commands)) {
        if (command.startsWith("CWD ") || command.startsWith("RETR "))
            paths += command;
    }
    QCOMPARE(paths, commands);
}

void TestMirroring::excludedNamesAreLeftAlone()
{
    const RemoteTree tree{
        {"/",
         {remoteFile("a.TMP", "1"), remoteFolder("cache.tmp"), remoteFolder("new.tmp"),
          remoteFile("b.txt", "2"), remoteFile("c.tmp", "3")}},
        {"/cache.tmp", {remoteFile("x", "4")}},
        {"/new.tmp", {remoteFile("x", "5")}},
    };
    LocalFolder local({u"cache.tmp/old: x"_s, u"mine.tmp: x"_s, u"c.tmp: local"_s});
    RecordedWorker recorded(local.path());
    recorded.config.excludes = {u"*.tmp"_s};
    recorded.config.deleteExtraneous = true;
    recorded.config.syncMode = FullSync;
    QCOMPARE(recorded.mirror(tree), u"success downloaded=1 bytes=1"_s);
    QCOMPARE(local.read(),
             (QStringList{u"b.txt: 2"_s, u"c.tmp: local"_s, u"cache.tmp/old: x"_s, u"mine.tmp: x"_s}));
    QCOMPARE(recorded.log(3).filter(u"Excluded"_s),
             (QStringList{u"Excluded: a.TMP"_s, u"Excluded: cache.tmp"_s, u"Excluded: new.tmp"_s,
                          u"Excluded: c.tmp"_s}));
    QVERIFY(!recorded.commands.contains("CWD /cache.tmp"));
}

void TestMirroring::linksAreNotFollowed()
{
    for (const auto form : {FtpTreeOptions::Mlsd, FtpTreeOptions::Unix}) {
        // The server would give the file and the folder behind the links, if it were asked for them.
        const RemoteTree tree{
            {"/", {remoteLink("folder"), remoteLink("file"), remoteLink("excluded"), remoteLink("missing")}},
            {"/folder", {remoteFile("x", "1")}}};
        LocalFolder local({u"folder/mine: x"_s, u"file: x"_s, u"excluded: x"_s});
        RecordedWorker recorded(local.path());
        recorded.config.excludes = {u"excluded"_s};
        recorded.config.deleteExtraneous = true;
        QCOMPARE(recorded.mirror(tree, {.listing = form, .hasMdtm = false}), u"success deleted=2"_s);
        QCOMPARE(recorded.log(1), (QStringList{u"Skipping symlink 'folder'."_s, u"Skipping symlink 'file'."_s,
                                               u"Skipping symlink 'missing'."_s}));
        QCOMPARE(local.read(), QStringList{u"excluded: x"_s});
        QVERIFY(!recorded.commands.contains("CWD /folder") && !recorded.commands.contains("RETR /file"));
    }
}

void TestMirroring::aNameThatIsExcludedIsNotLookedAtFurther()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.excludes = {u"*"_s};
    const RemoteTree tree{{"/", {remoteLink("link"), remoteFile("a", "x"), remoteFolder("b")}}};
    QCOMPARE(recorded.mirror(tree), u"success"_s);
    QCOMPARE(recorded.log(1), QStringList());
    QCOMPARE(recorded.log(3).filter(u"Excluded"_s),
             (QStringList{u"Excluded: link"_s, u"Excluded: a"_s, u"Excluded: b"_s}));
}

void TestMirroring::withoutRecursionSubfoldersAreOnlyKept()
{
    const RemoteTree tree{{"/", {remoteFolder("there"), remoteFile("a", "1"), remoteFolder("not there")}},
                          {"/there", {remoteFile("x", "1")}},
                          {"/not there", {remoteFile("x", "1")}}};
    LocalFolder local({u"there/mine: x"_s, u"extra/mine: x"_s, u"extra.txt: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.recursive = false;
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree), u"success downloaded=1 deleted=1 bytes=1"_s);
    QCOMPARE(local.read(), (QStringList{u"a: 1"_s, u"extra/mine: x"_s, u"there/mine: x"_s}));
    QCOMPARE(recorded.commands,
             kLogin + QByteArrayList({"CWD /", "TYPE I", "EPSV", "MLSD", "EPSV", "RETR /a", "QUIT"}));
    QCOMPARE(decisions(recorded), (QStringList{u"0 Downloading /a (new)"_s, u"0 Deleted LOCAL/extra.txt"_s}));
}

void TestMirroring::sixtyFiveLevelsAreServed()
{
    RemoteTree tree;
    QByteArray path = "/";
    QStringList expected;
    QString localPath;
    for (int level = 0; level < 70; ++level) {
        tree[path] = {remoteFile("f", QByteArray::number(level), kTime), remoteFolder("d")};
        path += path.endsWith('/') ? "d" : "/d";
        if (level <= 64)
            expected += localPath + u"f: "_s + QString::number(level);
        localPath += u"d/"_s;
    }
    tree[path] = {};
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree), u"success downloaded=65 bytes=120"_s);
    QCOMPARE(recorded.log(1),
             QStringList{u"Maximum depth reached, skipping '/%1'."_s.arg(u"d/"_s.repeated(65).chopped(1))});
    QCOMPARE(local.read(), sorted(expected));
    QVERIFY(!QFile::exists(local.filePath(u"d/"_s.repeated(65))));
    QCOMPARE(recorded.commands.count("MLSD"), qsizetype(65));
}

void TestMirroring::theDepthLimitIsNoFailure()
{
    RemoteTree tree;
    QByteArray path = "/";
    for (int level = 0; level < 65; ++level) {
        tree[path] = {remoteFolder("d")};
        path += path.endsWith('/') ? "d" : "/d";
    }
    // What is there beyond the limit is kept, since the server has a folder of that name.
    const QString beyond = u"d/"_s.repeated(65);
    LocalFolder local({beyond + u"mine: x"_s, u"d/"_s.repeated(64) + u"extra: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree), u"success deleted=1"_s);
    QCOMPARE(recorded.log(1).size(), qsizetype(1));
    QCOMPARE(local.read(), QStringList{beyond + u"mine: x"_s});
    QCOMPARE(recorded.eventsOf({u"status"_s}).last(), u"status 0 ''"_s);
}

// Runs that follow one another

void TestMirroring::theSecondRunFetchesNothing_data()
{
    QTest::addColumn<int>("listing");
    QTest::addColumn<bool>("hasMdtm");
    QTest::addColumn<int>("compareBy");
    for (const int compareBy : {SizeAndTimestamp, SizeOnly, TimestampOnly}) {
        QTest::addRow("MLSD, %d", compareBy) << int(FtpTreeOptions::Mlsd) << true << compareBy;
        QTest::addRow("Unix and MDTM, %d", compareBy) << int(FtpTreeOptions::Unix) << true << compareBy;
        QTest::addRow("Unix, %d", compareBy) << int(FtpTreeOptions::Unix) << false << compareBy;
        QTest::addRow("DOS and MDTM, %d", compareBy) << int(FtpTreeOptions::Dos) << true << compareBy;
        QTest::addRow("DOS, %d", compareBy) << int(FtpTreeOptions::Dos) << false << compareBy;
    }
}

void TestMirroring::theSecondRunFetchesNothing()
{
    QFETCH(const int, listing);
    QFETCH(const bool, hasMdtm);
    QFETCH(const int, compareBy);
    const RemoteTree tree{
        {"/", {remoteFile("a", "1", "20240131120000"), remoteFolder("sub"), remoteFile("e", {}, kTime)}},
        {"/sub", {remoteFile("b", "22", "19991231235959"), remoteFile("c", "3", "20371231235959")}}};
    const FtpTreeOptions options{.listing = FtpTreeOptions::Listing(listing), .hasMdtm = hasMdtm};
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.compareBy = compareBy;
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree, options), u"success downloaded=4 bytes=4"_s);
    const QStringList expected = {u"a: 1"_s, u"e: "_s, u"sub/b: 22"_s, u"sub/c: 3"_s};
    QCOMPARE(local.read(), expected);
    if (hasMdtm) {
        QCOMPARE(fileTime(local.filePath(u"a"_s)), QByteArray("20240131120000"));
        QCOMPARE(fileTime(local.filePath(u"sub/b"_s)), QByteArray("19991231235959"));
        QCOMPARE(fileTime(local.filePath(u"sub/c"_s)), QByteArray("20371231235959"));
    }
    QCOMPARE(recorded.mirror(tree, options), u"success upToDate=4"_s);
    for (const QByteArray &command : std::as_const(recorded.commands))
        QVERIFY2(!command.startsWith("RETR"), command.constData());
    QCOMPARE(local.read(), expected);
}

void TestMirroring::withoutTimesFilesKeepTheTimeOfWriting()
{
    const RemoteTree tree{{"/", {remoteFile("a", "12345", kTime)}}};
    const FtpTreeOptions options{.listing = FtpTreeOptions::Unix, .hasMdtm = false};
    LocalFolder local;
    RecordedWorker recorded(local.path());
    const QByteArray before = QDateTime::currentDateTimeUtc().toString(u"yyyyMMddHHmmss"_s).toLatin1();
    QCOMPARE(recorded.mirror(tree, options), u"success downloaded=1 bytes=5"_s);
    QVERIFY(fileTime(local.filePath(u"a"_s)) >= before);

    plant(local.path(), {u"a: of another size"_s});
    recorded.config.compareBy = TimestampOnly;
    QCOMPARE(recorded.mirror(tree, options), u"success upToDate=1"_s);
}

void TestMirroring::aChangedFileIsFetchedAgain()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.mirror({{"/", {remoteFile("a", "before", kTime), remoteFile("b", "same", kTime)}}});
    const RemoteTree changed{
        {"/", {remoteFile("a", "after!", "20240201000000"), remoteFile("b", "same", kTime)}}};
    QCOMPARE(recorded.mirror(changed), u"success downloaded=1 upToDate=1 bytes=6"_s);
    QCOMPARE(local.read(), (QStringList{u"a: after!"_s, u"b: same"_s}));
    QCOMPARE(fileTime(local.filePath(u"a"_s)), QByteArray("20240201000000"));
}

void TestMirroring::unknownFilesAreFetchedOnEveryRun()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    for (int run = 0; run < 3; ++run)
        QCOMPARE(recorded.mirror({{"/", {remoteLine("x=; a"), remoteFileListedAs({}, "b", "22")}}},
                                 {.faults = {Fault::at("RETR /a").reply("550 no")}}),
                 u"downloaded=1 failed=1 message='The mirror did not complete.'"_s);
    QCOMPARE(local.read(), QStringList{u"b: 22"_s});
}

void TestMirroring::timesOfTheHourThatAClockChangeSkips_data()
{
    QTest::addColumn<QByteArray>("zone");
    QTest::addColumn<QByteArray>("time");
    QTest::newRow("UTC") << QByteArray("UTC") << QByteArray("20240331023000");
    QTest::newRow("Berlin") << QByteArray("Europe/Berlin") << QByteArray("20240331023000");
    QTest::newRow("Berlin, repeated") << QByteArray("Europe/Berlin") << QByteArray("20241027023000");
    QTest::newRow("New York") << QByteArray("America/New_York") << QByteArray("20240310023000");
    QTest::newRow("Lord Howe") << QByteArray("Australia/Lord_Howe") << QByteArray("20241006021500");
}

void TestMirroring::timesOfTheHourThatAClockChangeSkips()
{
    QFETCH(const QByteArray, zone);
    QFETCH(const QByteArray, time);
    const LocalZone inForce(zone);
    for (const auto form : {FtpTreeOptions::Mlsd, FtpTreeOptions::Unix}) {
        LocalFolder local;
        RecordedWorker recorded(local.path());
        QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "1", time)}}}, {.listing = form}),
                 u"success downloaded=1 bytes=1"_s);
        QCOMPARE(fileTime(local.filePath(u"a"_s)), time);
        QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "1", time)}}}, {.listing = form}),
                 u"success upToDate=1"_s);
    }
}

// What fails

void TestMirroring::whatFailsAndHowItGoesOn_data()
{
    QTest::addColumn<QList<Fault>>("faults");
    QTest::addColumn<QStringList>("localBefore");
    QTest::addColumn<QString>("told");
    QTest::addColumn<QStringList>("errors");
    QTest::addColumn<QStringList>("localAfter");
    const QString incomplete = u"message='The mirror did not complete.'"_s;
    const QStringList extras = {u"extra: x"_s, u"sub/extra: x"_s};
    const auto row = [](const char *what, const QList<Fault> &faults, const QStringList &localBefore,
                        const QString &told, const QStringList &errors, const QStringList &localAfter) {
        QTest::newRow(what) << faults << localBefore << told << errors << localAfter;
    };
    row("nothing", {}, extras, u"success downloaded=3 deleted=2 bytes=3"_s, {},
        {u"a: 1"_s, u"sub/b: 2"_s, u"z: 3"_s});
    row("the sub-folder cannot be made", {}, {u"sub: a file"_s, u"extra: x"_s},
        u"downloaded=2 deleted=2 failed=1 bytes=2 "_s + incomplete, {u"Cannot create 'LOCAL/sub'."_s},
        {u"a: 1"_s, u"z: 3"_s});
    const QString noChange = u"Cannot change to remote directory '/sub'"_s;
    row("the sub-folder is refused", {Fault::at("CWD /sub").reply("550 no")}, extras,
        u"downloaded=2 deleted=1 failed=1 bytes=2 message='%1'"_s.arg(noChange),
        {u"Cannot list '/sub': "_s + noChange}, {u"a: 1"_s, u"sub/extra: x"_s, u"z: 3"_s});
    row("its listing is refused", {Fault::at("MLSD").butNotTheFirst(1).reply("550 no")}, extras,
        u"downloaded=2 deleted=1 failed=1 bytes=2 message='Server refused the listing command'"_s,
        {u"Cannot list '/sub': Server refused the listing command"_s},
        {u"a: 1"_s, u"sub/extra: x"_s, u"z: 3"_s});
    row("its listing is broken off", {Fault::inData("MLSD", 0).butNotTheFirst(1).reply("426 oops")}, extras,
        u"downloaded=2 deleted=1 failed=1 bytes=2 message='Transfer did not complete cleanly: 426 oops'"_s,
        {u"Cannot list '/sub': Transfer did not complete cleanly: 426 oops"_s},
        {u"a: 1"_s, u"sub/extra: x"_s, u"z: 3"_s});
    row("the root's listing is broken off", {Fault::inData("MLSD", 60).reply("451 oops")}, extras,
        u"failed=1 message='Transfer did not complete cleanly: 451 oops'"_s,
        {u"Cannot list '/': Transfer did not complete cleanly: 451 oops"_s}, extras);
    row("a file is refused", {Fault::at("RETR /a").reply("550 no")}, extras,
        u"downloaded=2 deleted=2 failed=1 bytes=2 "_s + incomplete,
        {u"Failed: /a (Server refused to send '/a')"_s}, {u"sub/b: 2"_s, u"z: 3"_s});
    row("a file in the sub-folder is refused", {Fault::at("RETR /sub/b").reply("550 no")},
        extras + QStringList{u"sub/b: of old"_s}, u"downloaded=2 deleted=2 failed=1 bytes=2 "_s + incomplete,
        {u"Failed: /sub/b (Server refused to send '/sub/b')"_s}, {u"a: 1"_s, u"sub/b: of old"_s, u"z: 3"_s});
    row("all files are refused",
        {Fault::at("RETR /a").reply("550 no"), Fault::at("RETR /sub/b").reply("450 no"),
         Fault::at("RETR /z").reply("500 no")},
        extras, u"deleted=2 failed=3 "_s + incomplete,
        {u"Failed: /a (Server refused to send '/a')"_s, u"Failed: /sub/b (Server refused to send '/sub/b')"_s,
         u"Failed: /z (Server refused to send '/z')"_s},
        {u"sub/"_s});
    row("the session is lost in the first file", {Fault::at("RETR /a").close()}, extras,
        u"failed=1 message='Server refused to send '/a''"_s, {u"Failed: /a (Server refused to send '/a')"_s},
        extras);
    const QString lost = u"Control connection closed by the server"_s;
    row("the session is lost in the sub-folder's file", {Fault::inData("RETR /sub/b").close()}, extras,
        u"downloaded=1 failed=1 bytes=1 message='%1'"_s.arg(lost), {u"Failed: /sub/b (%1)"_s.arg(lost)},
        {u"a: 1"_s, u"extra: x"_s, u"sub/extra: x"_s});
    row("the session is lost in the sub-folder's listing", {Fault::atEnd("MLSD").butNotTheFirst(1).close()},
        extras, u"downloaded=1 failed=1 bytes=1 message='%1'"_s.arg(lost), {u"Cannot list '/sub': "_s + lost},
        {u"a: 1"_s, u"extra: x"_s, u"sub/extra: x"_s});
    row("the session is lost in the last file", {Fault::atEnd("RETR /z").close()}, extras,
        u"downloaded=2 deleted=1 failed=1 bytes=2 message='%1'"_s.arg(lost), {u"Failed: /z (%1)"_s.arg(lost)},
        {u"a: 1"_s, u"extra: x"_s, u"sub/b: 2"_s});
    row("a failure, and then the session is lost",
        {Fault::at("CWD /sub").reply("550 no"), Fault::at("RETR /z").close()}, extras,
        u"downloaded=1 failed=2 bytes=1 message='Server refused to send '/z''"_s,
        {u"Cannot list '/sub': "_s + noChange, u"Failed: /z (Server refused to send '/z')"_s},
        {u"a: 1"_s, u"extra: x"_s, u"sub/extra: x"_s});
}

void TestMirroring::whatFailsAndHowItGoesOn()
{
    QFETCH(const QList<Fault>, faults);
    QFETCH(const QStringList, localBefore);
    QFETCH(const QString, told);
    QFETCH(const QStringList, errors);
    QFETCH(const QStringList, localAfter);
    const RemoteTree tree{
        {"/", {remoteFile("a", "1", kTime), remoteFolder("sub"), remoteFile("z", "3", kTime)}},
        {"/sub", {remoteFile("b", "2", kTime)}}};
    LocalFolder local(localBefore);
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.syncMode = FullSync;
    QCOMPARE(recorded.mirror(tree, {.faults = faults}), told);
    QCOMPARE(recorded.log(2), errors);
    QCOMPARE(local.read(), localAfter);

    recorded.config.syncMode = NewAndChanged;
    const QString next = recorded.mirror(tree);
    QVERIFY2(next.startsWith(u"success"), qPrintable(next));
    QCOMPARE(local.read(), (QStringList{u"a: 1"_s, u"sub/b: 2"_s, u"z: 3"_s}));
}

void TestMirroring::anIncompleteFileLeavesTheOldOneInPlace_data()
{
    QTest::addColumn<QByteArray>("listedSize");
    QTest::addColumn<QList<Fault>>("faults");
    QTest::addColumn<QString>("why");
    QTest::newRow("fewer bytes than listed")
        << QByteArray("12") << QList<Fault>{} << u"Size mismatch for '/a': expected 12 bytes, got 11"_s;
    QTest::newRow("more bytes than listed")
        << QByteArray("10") << QList<Fault>{} << u"Size mismatch for '/a': expected 10 bytes, got 11"_s;
    QTest::newRow("some bytes, listed as empty")
        << QByteArray("0") << QList<Fault>{} << u"Size mismatch for '/a': expected 0 bytes, got 11"_s;
    QTest::newRow("426") << QByteArray("11") << QList{Fault::inData("RETR /a").reply("426 aborted")}
                         << u"Transfer did not complete cleanly: 426 aborted"_s;
    QTest::newRow("451 behind all the data")
        << QByteArray("11") << QList{Fault::atEnd("RETR /a").reply("451 local error")}
        << u"Transfer did not complete cleanly: 451 local error"_s;
    QTest::newRow("426 and no size") << QByteArray() << QList{Fault::inData("RETR /a").reply("426 aborted")}
                                     << u"Transfer did not complete cleanly: 426 aborted"_s;
    QTest::newRow("no passive mode") << QByteArray("11")
                                     << QList{Fault::at("EPSV").butNotTheFirst(1).reply("500 no"),
                                              Fault::at("PASV").reply("502 no")}
                                     << u"Server refused passive mode"_s;
}

void TestMirroring::anIncompleteFileLeavesTheOldOneInPlace()
{
    QFETCH(const QByteArray, listedSize);
    QFETCH(const QList<Fault>, faults);
    QFETCH(const QString, why);
    LocalFolder local({u"a: old"_s});
    setFileTime(local.filePath(u"a"_s), "20200101000000");
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    const RemoteTree tree{{"/", {remoteFileListedAs(listedSize, "a", "the new one", kTime)}}};
    QCOMPARE(recorded.mirror(tree, {.faults = faults}), u"failed=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2), QStringList{u"Failed: /a (%1)"_s.arg(why)});
    QCOMPARE(local.read(), QStringList{u"a: old"_s});
    QCOMPARE(fileTime(local.filePath(u"a"_s)), QByteArray("20200101000000"));

    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "the new one", kTime)}}}),
             u"success downloaded=1 bytes=11"_s);
    QCOMPARE(local.read(), QStringList{u"a: the new one"_s});
}

void TestMirroring::aFolderThatIsNotListedIsMadeAllTheSame()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror({{"/", {remoteFolder("refused")}}}),
             u"failed=1 message='Cannot change to remote directory '/refused''"_s);
    QCOMPARE(local.read(), QStringList{u"refused/"_s});
}

void TestMirroring::theLastFailedFolderIsTheMessage()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror({{"/", {remoteFolder("one"), remoteFolder("two"), remoteFile("a", "1")}}}),
             u"downloaded=1 failed=2 bytes=1 message='Cannot change to remote directory '/two''"_s);
    QCOMPARE(recorded.eventsOf({u"status"_s}).last(),
             u"status 4 'Cannot change to remote directory '/two''"_s);
}

void TestMirroring::anEmptyListingIsAnEmptyFolder_data()
{
    QTest::addColumn<int>("listing");
    QTest::addColumn<QByteArrayList>("lines");
    for (const auto form : {FtpTreeOptions::Mlsd, FtpTreeOptions::Unix, FtpTreeOptions::Dos}) {
        QTest::addRow("no entries, %d", form) << int(form) << QByteArrayList();
        QTest::addRow("nothing that can be read, %d", form)
            << int(form) << QByteArrayList{"", "nonsense", "total"};
    }
}

void TestMirroring::anEmptyListingIsAnEmptyFolder()
{
    QFETCH(const int, listing);
    QFETCH(const QByteArrayList, lines);
    QList<RemoteEntry> entries;
    for (const QByteArray &line : lines)
        entries += remoteLine(line);
    LocalFolder local({u"a: x"_s, u"b/c: x"_s, u"d.part: x"_s, u"e.keep: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.excludes = {u"*.keep"_s};
    QCOMPARE(recorded.mirror({{"/", entries}}, {.listing = FtpTreeOptions::Listing(listing)}),
             u"success deleted=2"_s);
    QCOMPARE(local.read(), (QStringList{u"d.part: x"_s, u"e.keep: x"_s}));
}

void TestMirroring::aStopInAnEndlessListing()
{
    QList<RemoteEntry> entries;
    for (int i = 0; i < 20000; ++i)
        entries += remoteFile("file " + QByteArray::number(i), "x", kTime);
    LocalFolder local({u"extra: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    const auto stop = Fault::inData("MLSD").call([&recorded] { recorded.worker.requestCancel(); });
    QCOMPARE(recorded.mirror({{"/", entries}}, {.faults = {stop}}),
             u"cancelled failed=1 message='Stopped at your request.'"_s);
    QCOMPARE(recorded.log(2), QStringList{u"Cannot list '/': Cancelled"_s});
    QCOMPARE(local.read(), QStringList{u"extra: x"_s});
}

// What is in the way locally

void TestMirroring::aFileWhereAFolderMustGo()
{
    const RemoteTree tree{{"/", {remoteFolder("sub"), remoteFile("z", "1", kTime)}},
                          {"/sub", {remoteFile("a", "1", kTime)}}};
    LocalFolder local({u"sub: in the way"_s});
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror(tree),
             u"downloaded=1 failed=1 bytes=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2), QStringList{u"Cannot create 'LOCAL/sub'."_s});
    QCOMPARE(local.read(), (QStringList{u"sub: in the way"_s, u"z: 1"_s}));
    QVERIFY(!recorded.commands.contains("CWD /sub"));

    // Pruning clears the way for the next run.
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree),
             u"upToDate=1 deleted=1 failed=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.mirror(tree), u"success downloaded=1 upToDate=1 bytes=1"_s);
    QCOMPARE(local.read(), (QStringList{u"sub/a: 1"_s, u"z: 1"_s}));
}

void TestMirroring::aFolderWhereAFileMustGo()
{
    const RemoteTree tree{{"/", {remoteFile("a", "1", kTime), remoteFile("z", "1", kTime)}}};
    LocalFolder local({u"a/mine: x"_s});
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror(tree),
             u"downloaded=1 failed=1 bytes=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2), QStringList{u"Failed: /a (Cannot replace 'LOCAL/a')"_s});
    QCOMPARE(local.read(), (QStringList{u"a/mine: x"_s, u"z: 1"_s}));

    recorded.config.syncMode = NewOnly; // what is there is left alone, whatever it is
    QCOMPARE(recorded.mirror(tree), u"success upToDate=2"_s);

    recorded.config.syncMode = NewAndChanged;
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree),
             u"upToDate=1 deleted=1 failed=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.mirror(tree), u"success downloaded=1 upToDate=1 bytes=1"_s);
    QCOMPARE(local.read(), (QStringList{u"a: 1"_s, u"z: 1"_s}));
}

void TestMirroring::aFolderInPlaceOfAWorkingFile()
{
    LocalFolder local({u"a: old"_s, u"a.part/mine: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    const RemoteTree tree{{"/", {remoteFile("a", "1234", kTime), remoteFile("z", "1", kTime)}}};
    QCOMPARE(recorded.mirror(tree),
             u"downloaded=1 failed=1 bytes=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2).size(), qsizetype(1));
    const QString error = recorded.log(2).first();
    QVERIFY2(error.startsWith(u"Failed: /a (Cannot write to 'LOCAL/a.part': "), qPrintable(error));
    QCOMPARE(local.read(), (QStringList{u"a.part/mine: x"_s, u"a: old"_s, u"z: 1"_s}));
}

void TestMirroring::aStaleWorkingFileIsOverwritten()
{
    LocalFolder local(
        {u"a: old"_s, u"a.part: the longer rest of a run that was killed"_s, u"b.part: rest"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "1234", kTime)}}}), u"success downloaded=1 bytes=4"_s);
    QCOMPARE(local.read(), (QStringList{u"a: 1234"_s, u"b.part: rest"_s}));
}

void TestMirroring::anUnwritableFolder()
{
    const RemoteTree tree{
        {"/", {remoteFile("a", "1234", kTime), remoteFolder("sub"), remoteFile("new", "1", kTime)}},
        {"/sub", {remoteFile("b", "1", kTime)}}};
    LocalFolder local({u"a: old"_s, u"extra: x"_s, u"extra folder/x: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    {
        const UnwritableFolder unwritable(local.path());
        QCOMPARE(recorded.mirror(tree), u"failed=3 message='The mirror did not complete.'"_s);
        QCOMPARE(recorded.log(2),
                 (QStringList{u"Failed: /a (Cannot write to 'LOCAL/a.part': Permission denied)"_s,
                              u"Cannot create 'LOCAL/sub'."_s,
                              u"Failed: /new (Cannot write to 'LOCAL/new.part': Permission denied)"_s}));
        QCOMPARE(sorted(recorded.log(1)),
                 (QStringList{u"Cannot delete LOCAL/extra"_s, u"Cannot delete folder LOCAL/extra folder"_s}));
        QCOMPARE(local.read().size(), qsizetype(3));
    }
    QCOMPARE(local.read().first(), u"a: old"_s);
    const QString next = recorded.mirror(tree);
    QVERIFY2(next.startsWith(u"success downloaded=3 deleted="), qPrintable(next));
    QCOMPARE(local.read(), (QStringList{u"a: 1234"_s, u"new: 1"_s, u"sub/b: 1"_s}));
}

void TestMirroring::anUnwritableParent()
{
    LocalFolder local;
    RecordedWorker recorded(local.filePath(u"job"_s));
    {
        const UnwritableFolder unwritable(local.path());
        QCOMPARE(recorded.mirror({{"/", {}}}), u"message='Cannot create the local folder 'LOCAL''"_s);
        QCOMPARE(recorded.sessions, 0);
    }
    QCOMPARE(recorded.mirror({{"/", {}}}), u"success"_s);
    QCOMPARE(local.read(), QStringList{u"job/"_s});
}

void TestMirroring::namesThatDifferInCaseOnly()
{
    LocalFolder local({u"NAME: old"_s});
    if (QFile::exists(local.filePath(u"name"_s)))
        QSKIP("this disk does not tell the two apart");
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror({{"/", {remoteFile("name", "1"), remoteFile("Name", "2")}}}),
             u"success downloaded=2 deleted=1 bytes=2"_s);
    QCOMPARE(local.read(), (QStringList{u"Name: 2"_s, u"name: 1"_s}));
}

void TestMirroring::aFullDisk_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {1, 4096, 4097, 16383, 16384, 16385, 20480, 20481, 65535, 65536, 65537, 1000000})
        QTest::addRow("%d", size) << size;
}

void TestMirroring::aFullDisk()
{
#ifdef Q_OS_LINUX
    QFETCH(const int, size);
    const QTemporaryDir disk;
    const QByteArray mountPoint = QFile::encodeName(disk.path());
    if (::mount("tmpfs", mountPoint.constData(), "tmpfs", 0, "size=256k") != 0)
        QSKIP("only root can mount a small disk");
    const auto unmount = qScopeGuard([mountPoint] { ::umount2(mountPoint.constData(), MNT_DETACH); });
    const QString localDir = disk.filePath(u"local"_s);
    plant(localDir, {u"a: the old one"_s, u"extra: x"_s});
    setFileTime(localDir + u"/a"_s, "20200101000000");

    // Fills the disk with small files, and deletes them again up to a block less than what is needed.
    const QDir ballast(disk.filePath(u"ballast"_s));
    QVERIFY(ballast.mkpath(u"."_s));
    const auto available = [&disk] { return std::filesystem::space(disk.path().toStdString()).available; };
    const auto block = std::filesystem::space(disk.path().toStdString()).capacity / 64;
    QStringList pieces;
    while (available() > 0) {
        pieces += ballast.filePath(QString::number(pieces.size()));
        QFile piece(pieces.last());
        QVERIFY(piece.open(QIODevice::WriteOnly) && piece.write("x") == 1 && piece.flush());
    }
    while (!pieces.isEmpty() && available() + block < static_cast<std::uintmax_t>(size))
        QVERIFY(QFile::remove(pieces.takeLast()));
    QVERIFY(available() < static_cast<std::uintmax_t>(size));

    RecordedWorker recorded(localDir);
    const RemoteTree tree{{"/", {remoteFile("a", QByteArray(size, 'n'), kTime)}}};
    QCOMPARE(recorded.mirror(tree), u"failed=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2),
             QStringList{u"Failed: /a (Cannot write to 'LOCAL/a.part': No space left on device)"_s});
    QCOMPARE(treeLines(localDir), (QStringList{u"a: the old one"_s, u"extra: x"_s}));
    QCOMPARE(fileTime(localDir + u"/a"_s), QByteArray("20200101000000"));

    if (size > 200000)
        return; // that one does not fit an empty disk either
    for (const QString &piece : std::as_const(pieces))
        QVERIFY(QFile::remove(piece));
    QCOMPARE(recorded.mirror(tree), u"success downloaded=1 bytes=%1"_s.arg(size));
    QCOMPARE(treeLines(localDir), (QStringList{u"a: "_s + QString(size, u'n'), u"extra: x"_s}));
#else
    QSKIP("small disks can be mounted on Linux only");
#endif
}

QTEST_GUILESS_MAIN(TestMirroring)
#include "tst_Mirroring.moc"
