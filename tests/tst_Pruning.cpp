#include "mirror/MirrorWorker.h"
#include "support/FtpTreeServer.h"
#include "support/LocalFolder.h"
#include "support/RecordedWorker.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <filesystem>

#ifdef Q_OS_UNIX
#include <sys/stat.h>
#endif

using namespace Qt::StringLiterals;

namespace {

const QByteArray kTime = "20240131120000";

void addForms()
{
    QTest::addColumn<FtpTreeOptions::Listing>("form");
    QTest::newRow("MLSD") << FtpTreeOptions::Mlsd;
    QTest::newRow("Unix") << FtpTreeOptions::Unix;
    QTest::newRow("DOS") << FtpTreeOptions::Dos;
}

/** Names that lead elsewhere. CANARY stands for the path of the file beside the local folder. */
QByteArrayList unsafeNames()
{
    return {
        "../canary.txt",
        "../../canary.txt",
        "../../x",
        "../x",
        "../canary",
        "../canary/inner.txt",
        "sub/../../canary.txt",
        "a/../../b",
        "x/..",
        "x/.",
        "./x",
        "sub/x",
        "x/",
        "/",
        "//",
        "/x",
        "/etc/x",
        "CANARY",
        QByteArray("a\0b", 3),
        QByteArray("..\0", 3),
        QByteArray("\0", 1),
        QByteArray("canary.txt\0/../..", 17),
    };
}

QByteArrayList honestNames()
{
    return {
        "plain",
        "a..b",
        "..mp3",
        "...",
        "mp3..",
        "~",
        "~x",
        "[a]",
        "*",
        "?",
        "{a,b}",
        "-rf",
        "a;b",
        "a=b;c=d; e",
        "%20",
        "%1",
        "%1 %2 %3",
        "%s%n",
        ".hidden",
        "a  b   c",
        "it's \"quoted\" `so` $(far) $HOME",
        "a -> b",
        "a|b<c>d&e",
        "#!?@+,^",
        "\\",
        "..\\x",
        "C:\\x",
        "a:b",
        ":x",
        ":",
        ":Kelpwharf.png",
        "file:x",
        "qrc:x",
        "nul",
        "total 5",
        "a\tb",
        "gr\xc3\xbc\xc3\x9f",            // composed
        "gru\xcc\x88\xc3\x9f",           // the same, decomposed
        "\xf0\x9f\x90\xb3 \xe9\xaf\xa8", // a whale
        "\xe2\x80\xaegpj.exe",           // from right to left
        QByteArray(255, 'n'),
        QByteArray("\xc3\xa9").repeated(127) + 'x',
        QByteArray("\xf0\x9f\x90\xb3").repeated(63) + "xyz",
    };
}

/** All folders that the server was asked to change to, and files that it was asked for. */
QByteArrayList paths(const RecordedWorker &recorded)
{
    QByteArrayList found;
    for (const QByteArray &command : recorded.commands) {
        if (command.startsWith("CWD ") || command.startsWith("RETR "))
            found += command;
    }
    return found;
}

} // namespace

class TestPruning : public QObject
{
    Q_OBJECT

private slots:
    void whatIsPruned_data();
    void whatIsPruned();
    void whatIsKeptWithoutPruning();
    void pruningComesLast();
    void aFolderGoesWithEverythingInIt();
    void whatCannotBeDeletedIsNoFailure();
    void whatCouldBeDeletedOfAFolderStaysDeleted();
    void whatVanishesMeanwhileIsNoFailure();
    void specialFilesArePruned();
    void excludePatterns_data();
    void excludePatterns();
    void severalPatterns();

    void unsafeNamesAreSkipped_data();
    void unsafeNamesAreSkipped();
    void unsafeNamesProtectNothing_data();
    void unsafeNamesProtectNothing();
    void unsafeLinksAndExcludedNames();
    void honestNamesAreServed_data();
    void honestNamesAreServed();
    void honestNamesOfFolders_data();
    void honestNamesOfFolders();
    void composedAndDecomposedNamesAreTwo();
    void namesWithLineBreaksReachNoServer();

    void aLinkInPlaceOfAFolderIsNotFollowed_data();
    void aLinkInPlaceOfAFolderIsNotFollowed();
    void aLinkToAFileMayGoTheNextTime();
    void aLinkInsideTheFolderIsNotFollowed();
    void theLocalFolderItselfMayBeALink();
    void aLinkInPlaceOfAFileIsReplaced_data();
    void aLinkInPlaceOfAFileIsReplaced();
    void aLinkedFileThatIsUpToDateStays();
    void aDanglingLinkInPlaceOfAFolder();
    void aWorkingFileThatIsALinkIsReplaced_data();
    void aWorkingFileThatIsALinkIsReplaced();
    void aHardLinkIsNotWrittenThrough();
    void prunedLinksAreRemovedThemselves_data();
    void prunedLinksAreRemovedThemselves();
    void linksAreKeptAsWhatTheyPointTo_data();
    void linksAreKeptAsWhatTheyPointTo();
    void aPrunedFolderIsNotLeftThroughItsLinks();
    void aSessionThatIsLostOverTheTimesPrunesNothing();
    void theFolderThatIsPrunedIsTheOneThatIsFilled();
};

// Pruning

void TestPruning::whatIsPruned_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QList<RemoteEntry>>("remote");
    QTest::addColumn<QString>("exclude");
    QTest::addColumn<bool>("recursive");
    QTest::addColumn<QString>("logged"); // empty if it stays
    const auto row = [](const char *what, const QString &line, const QString &logged,
                        const QList<RemoteEntry> &remote = {}, const QString &exclude = {},
                        bool recursive = true) {
        QTest::newRow(what) << line << remote << exclude << recursive << logged;
    };
    const QString stays;
    row("file", u"a: x"_s, u"Deleted LOCAL/a"_s);
    row("folder", u"a/b: x"_s, u"Deleted folder LOCAL/a"_s);
    row("empty folder", u"a/"_s, u"Deleted folder LOCAL/a"_s);
    row("hidden file", u".a: x"_s, u"Deleted LOCAL/.a"_s);
    row("hidden folder", u".a/b: x"_s, u"Deleted folder LOCAL/.a"_s);
    row("file with a colon in front", u":a: x"_s, u"Deleted LOCAL/:a"_s);
    row("folder with a colon in front", u":a/b: x"_s, u"Deleted folder LOCAL/:a"_s);
    row("kept file", u"a: x"_s, stays, {remoteFile("a", "x")});
    row("kept folder", u"a/"_s, stays, {remoteFolder("a")});
    row("working file", u"a.part: x"_s, stays);
    row("folder named like a working file", u"a.part/b: x"_s, stays);
    row("nothing but the suffix", u".part: x"_s, stays);
    row("the suffix in capitals", u"a.PART: x"_s, u"Deleted LOCAL/a.PART"_s);
    row("the suffix in the middle", u"a.part.txt: x"_s, u"Deleted LOCAL/a.part.txt"_s);
    row("the suffix without its dot", u"apart: x"_s, u"Deleted LOCAL/apart"_s);
    row("excluded file", u"a.tmp: x"_s, stays, {}, u"*.tmp"_s);
    row("excluded folder", u"a.tmp/b: x"_s, stays, {}, u"*.tmp"_s);
    row("excluded on both sides", u"a.tmp: x"_s, stays, {remoteFolder("a.tmp")}, u"*.tmp"_s);
    row("file where the server has a folder", u"a: x"_s, u"Deleted LOCAL/a"_s, {remoteFolder("a")});
    row("folder where the server has a file", u"a/b: x"_s, u"Deleted folder LOCAL/a"_s,
        {remoteFile("a", "x")});
    row("file where the server has a link", u"a: x"_s, u"Deleted LOCAL/a"_s, {remoteLink("a")});
    row("folder where the server has a link", u"a/b: x"_s, u"Deleted folder LOCAL/a"_s, {remoteLink("a")});
    row("excluded, where the server has a link", u"a: x"_s, stays, {remoteLink("a")}, u"a"_s);
    row("file, not recursive", u"a: x"_s, u"Deleted LOCAL/a"_s, {}, {}, false);
    row("folder, not recursive", u"a/b: x"_s, stays, {}, {}, false);
    row("kept folder, not recursive", u"a/b: x"_s, stays, {remoteFolder("a")}, {}, false);
    row("folder where the server has a file, not recursive", u"a/b: x"_s, stays, {remoteFile("a", "x")}, {},
        false);
    row("another name", u"ab: x"_s, u"Deleted LOCAL/ab"_s, {remoteFolder("a")});
}

void TestPruning::whatIsPruned()
{
    QFETCH(const QString, line);
    QFETCH(const QList<RemoteEntry>, remote);
    QFETCH(const QString, exclude);
    QFETCH(const bool, recursive);
    QFETCH(const QString, logged);
    LocalFolder local({line});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.recursive = recursive;
    recorded.config.excludes = {exclude};
    recorded.config.compareBy = SizeOnly;
    RemoteTree tree{{"/", remote}};
    if (!remote.isEmpty() && remote.first().kind == RemoteEntry::Folder)
        tree["/" + remote.first().name] = {};
    recorded.mirror(tree);
    const QString told = recorded.events.last();
    QCOMPARE(local.read().contains(line), logged.isEmpty());
    QCOMPARE(recorded.log(0).filter(u"Deleted"_s), logged.isEmpty() ? QStringList() : QStringList{logged});
    QCOMPARE(told.contains(u"deleted=1"), !logged.isEmpty());
    QCOMPARE(recorded.log(1).filter(u"Cannot delete"_s), QStringList());
    QCOMPARE(local.harm(), QString());
}

void TestPruning::whatIsKeptWithoutPruning()
{
    const QStringList lines = {u".hidden: x"_s, u"a: x"_s, u"sub/b: x"_s, u"sub/c/d: x"_s};
    LocalFolder local(lines);
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror({{"/", {remoteFolder("sub")}}, {"/sub", {}}}), u"success"_s);
    QCOMPARE(local.read(), lines);
}

void TestPruning::pruningComesLast()
{
    LocalFolder local({u"extra: x"_s, u"sub/extra: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.mirror({{"/", {remoteFolder("sub"), remoteFile("z", "1")}}, {"/sub", {remoteFile("b", "1")}}});
    QStringList lines = recorded.log(0);
    lines.removeFirst();
    lines.removeLast();
    const QStringList expected = {u"Downloading /sub/b (new)"_s, u"Deleted LOCAL/sub/extra"_s,
                                  u"Downloading /z (new)"_s, u"Deleted LOCAL/extra"_s};
    QCOMPARE(lines, expected);
}

void TestPruning::aFolderGoesWithEverythingInIt()
{
    LocalFolder local({u"old/a.part: x"_s, u"old/b.tmp: x"_s, u"old/.hidden/c: x"_s, u"old/d/e/f: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.excludes = {u"*.tmp"_s};
    QCOMPARE(recorded.mirror({{"/", {}}}), u"success deleted=1"_s);
    QCOMPARE(recorded.log(0).filter(u"Deleted"_s), QStringList{u"Deleted folder LOCAL/old"_s});
    QCOMPARE(local.read(), QStringList());
}

void TestPruning::whatCannotBeDeletedIsNoFailure()
{
    const QStringList lines = {u"extra 1: x"_s, u"extra 2: x"_s, u"extra 3/b: x"_s, u"kept: x"_s};
    LocalFolder local(lines);
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.compareBy = SizeOnly;
    {
        const UnwritableFolder unwritable(local.path());
        QCOMPARE(recorded.mirror({{"/", {remoteFile("kept", "x")}}}), u"success upToDate=1"_s);
        QCOMPARE(sorted(recorded.log(1)),
                 (QStringList{u"Cannot delete LOCAL/extra 1"_s, u"Cannot delete LOCAL/extra 2"_s,
                              u"Cannot delete folder LOCAL/extra 3"_s}));
        QCOMPARE(recorded.log(0).last(),
                 u"Finished in TIME s - 0 downloaded, 1 up to date, 0 deleted, 0 failed (0 KB)."_s);
        QCOMPARE(recorded.eventsOf({u"status"_s}).last(), u"status 0 ''"_s);
    }
    QVERIFY(local.read().contains(lines[0]) && local.read().contains(lines[1]) &&
            local.read().contains(lines[3]));
    QVERIFY(recorded.mirror({{"/", {remoteFile("kept", "x")}}}).startsWith(u"success upToDate=1 deleted="));
    QCOMPARE(local.read(), QStringList{u"kept: x"_s});
}

void TestPruning::whatCouldBeDeletedOfAFolderStaysDeleted()
{
    LocalFolder local({u"old/held/a: x"_s, u"old/b: x"_s});
    // Whoever deletes here must be the owner, but for the one folder that nobody may write to.
    for (const QString &name : {u""_s, u"old"_s})
        QVERIFY(QFile::setPermissions(local.filePath(name), QFile::Permissions(0x7777)));
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    {
        const UnwritableFolder unwritable(local.filePath(u"old/held"_s));
        QCOMPARE(recorded.mirror({{"/", {}}}), u"success"_s);
        QCOMPARE(recorded.log(1), QStringList{u"Cannot delete folder LOCAL/old"_s});
    }
    QCOMPARE(local.read(), QStringList{u"old/held/a: x"_s});
    QCOMPARE(recorded.mirror({{"/", {}}}), u"success deleted=1"_s);
}

void TestPruning::whatVanishesMeanwhileIsNoFailure()
{
    for (const QStringList &lines :
         {QStringList{u"a: x"_s, u"b: x"_s}, QStringList{u"a/c: x"_s, u"b/c: x"_s}}) {
        LocalFolder local(lines);
        RecordedWorker recorded(local.path());
        recorded.config.deleteExtraneous = true;
        QString other;
        recorded.onEvent = [&](const QString &event) {
            if (!event.startsWith(u"log 0 Deleted"))
                return;
            other = event.endsWith(u"/a") ? u"b"_s : u"a"_s;
            std::filesystem::remove_all(local.filePath(other).toStdString());
        };
        QCOMPARE(recorded.mirror({{"/", {}}}), u"success deleted=1"_s);
        const QString form =
            lines[0].contains(u'/') ? u"Cannot delete folder LOCAL/"_s : u"Cannot delete LOCAL/"_s;
        QCOMPARE(recorded.log(1), QStringList{form + other});
        QCOMPARE(local.read(), QStringList());
    }
}

void TestPruning::specialFilesArePruned()
{
#ifdef Q_OS_UNIX
    LocalFolder local;
    const QByteArray path = QFile::encodeName(local.filePath(u"pipe"_s));
    QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror({{"/", {}}}), u"success deleted=1"_s);
    QVERIFY(!QFile::exists(local.filePath(u"pipe"_s)));
#else
    QSKIP("there are no pipes in the folders of this system");
#endif
}

void TestPruning::excludePatterns_data()
{
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QByteArrayList>("excluded"); // of the names below
    QTest::newRow("none") << u""_s << QByteArrayList();
    QTest::newRow("blanks only") << u"  \t "_s << QByteArrayList();
    QTest::newRow("whole name") << u"a.tmp"_s << QByteArrayList{"a.tmp"};
    QTest::newRow("other case") << u"A.tMP"_s << QByteArrayList{"a.tmp"};
    QTest::newRow("name in another case") << u"b.tmp"_s << QByteArrayList{"B.TMP"};
    QTest::newRow("blanks around it") << u"  *.tmp\t"_s << QByteArrayList{"a.tmp", "B.TMP"};
    QTest::newRow("a star") << u"*.tmp*"_s << QByteArrayList{"a.tmp", "B.TMP", "a.tmp.txt"};
    QTest::newRow("not only a part of the name") << u".tmp"_s << QByteArrayList();
    QTest::newRow("a dot is a dot") << u"a.c"_s << QByteArrayList();
    QTest::newRow("question mark") << u"a?c"_s << QByteArrayList{"abc"};
    QTest::newRow("brackets") << u"[xa]bc"_s << QByteArrayList{"abc"};
    QTest::newRow("brackets that exclude")
        << u"[!b]*"_s << QByteArrayList{"a.tmp", "a.tmp.txt", "abc", ".x", "%1"};
    QTest::newRow("hidden") << u".*"_s << QByteArrayList{".x"};
    QTest::newRow("everything") << u"*"_s << QByteArrayList{"a.tmp", "B.TMP", "a.tmp.txt", "abc", ".x", "%1"};
    QTest::newRow("a path matches nothing") << u"*/a.tmp"_s << QByteArrayList();
    QTest::newRow("from the root matches nothing") << u"/abc"_s << QByteArrayList();
    QTest::newRow("not a regular expression") << u"a|abc"_s << QByteArrayList();
    QTest::newRow("damaged") << u"[a"_s << QByteArrayList();
    QTest::newRow("percent sign") << u"%1"_s << QByteArrayList{"%1"};
}

void TestPruning::excludePatterns()
{
    QFETCH(const QString, pattern);
    QFETCH(const QByteArrayList, excluded);
    const QByteArrayList names = {"a.tmp", "B.TMP", "a.tmp.txt", "abc", ".x", "%1"};
    for (const bool asFolders : {false, true}) {
        LocalFolder local;
        RecordedWorker recorded(local.path());
        recorded.config.excludes = {pattern};
        recorded.config.deleteExtraneous = true;
        RemoteTree tree{{"/", {}}};
        for (const QByteArray &name : names) {
            tree["/"] += asFolders ? remoteFolder(name) : remoteFile(name, "remote");
            tree["/" + name] = {};
            plant(local.path(), {u"extra"_s + QString::fromUtf8(name) + u": x"_s});
        }
        recorded.mirror(tree);
        QStringList lines;
        QStringList fetched;
        for (const QByteArray &name : names) {
            const QString text = QString::fromUtf8(name);
            if (excluded.contains(name))
                lines += u"Excluded: "_s + text;
            else
                fetched += text + (asFolders ? u"/"_s : u": remote"_s);
        }
        QCOMPARE(recorded.log(3).filter(u"Excluded"_s), lines);
        QStringList found = local.read();
        found.removeIf([](const QString &line) { return line.startsWith(u"extra"); });
        QCOMPARE(found, sorted(fetched));
    }
}

void TestPruning::severalPatterns()
{
    LocalFolder local({u"1.bak: x"_s, u"2.LOG: x"_s, u"3.txt: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.excludes = {u" "_s, u"*.bak"_s, u"*.BAK"_s, u"["_s, u"*.log"_s};
    const RemoteTree tree{
        {"/", {remoteFile("a.Bak", "x"), remoteFile("b.log", "x"), remoteFile("c.txt", "x")}}};
    QCOMPARE(recorded.mirror(tree), u"success downloaded=1 deleted=1 bytes=1"_s);
    QCOMPARE(local.read(), (QStringList{u"1.bak: x"_s, u"2.LOG: x"_s, u"c.txt: x"_s}));
    QCOMPARE(recorded.log(3).filter(u"Excluded"_s),
             (QStringList{u"Excluded: a.Bak"_s, u"Excluded: b.log"_s}));
}

// A server that wants to reach outside

void TestPruning::unsafeNamesAreSkipped_data() { addForms(); }

void TestPruning::unsafeNamesAreSkipped()
{
    QFETCH(const FtpTreeOptions::Listing, form);
    const bool hadThatFile = QFile::exists(u"/etc/x"_s) || QFile::exists(u"/x"_s);
    for (const bool asFolders : {false, true}) {
        LocalFolder local({u"a/b: mine"_s, u"sub/b: mine"_s, u"x/b: mine"_s});
        RemoteTree tree{{"/", {}}};
        QStringList warnings;
        for (QByteArray name : unsafeNames()) {
            name.replace("CANARY", QFile::encodeName(local.besidePath(u"canary.txt"_s)));
            tree["/"] += asFolders ? remoteFolder(name) : remoteFile(name, "evil", kTime);
            tree["/" + name] = {remoteFile("inner.txt", "evil", kTime),
                                remoteFile("canary.txt", "evil", kTime)};
            warnings += u"Skipping unsafe name '%1'."_s.arg(QString::fromUtf8(name));
        }
        tree["/"] += remoteFile("good", "1");
        RecordedWorker recorded(local.path());
        recorded.config.syncMode = FullSync;
        QCOMPARE(recorded.mirror(tree, {.listing = form}), u"success downloaded=1 bytes=1"_s);
        QCOMPARE(recorded.log(1), warnings);
        QCOMPARE(recorded.log(2), QStringList());
        QCOMPARE(paths(recorded), (QByteArrayList{"CWD /", "RETR /good"}));
        QCOMPARE(local.read(), (QStringList{u"a/b: mine"_s, u"good: 1"_s, u"sub/b: mine"_s, u"x/b: mine"_s}));
        QCOMPARE(local.harm(), QString());
    }
    QCOMPARE(QFile::exists(u"/etc/x"_s) || QFile::exists(u"/x"_s), hadThatFile);
}

void TestPruning::unsafeNamesProtectNothing_data() { addForms(); }

void TestPruning::unsafeNamesProtectNothing()
{
    QFETCH(const FtpTreeOptions::Listing, form);
    RemoteTree tree{{"/", {remoteFolder("sub")}}, {"/sub", {}}};
    LocalFolder local({u"a: x"_s, u"canary.txt: x"_s, u"canary/inner.txt: x"_s, u"sub/x: x"_s, u"x/y: x"_s});
    for (QByteArray name : unsafeNames()) {
        name.replace("CANARY", QFile::encodeName(local.besidePath(u"canary.txt"_s)));
        for (const QByteArray &folder : {QByteArray("/"), QByteArray("/sub")})
            tree[folder] += {remoteFile(name, "evil"), remoteFolder(name)};
    }
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree, {.listing = form}), u"success deleted=5"_s);
    QCOMPARE(recorded.log(1).size(), 4 * unsafeNames().size());
    QCOMPARE(local.read(), QStringList{u"sub/"_s});
    QCOMPARE(local.harm(), QString());
}

void TestPruning::unsafeLinksAndExcludedNames()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.excludes = {u"*.?mp"_s, u"a\\b"_s};
    const RemoteTree tree{{"/",
                           {remoteLink("../canary.txt"), remoteFile(QByteArray("\0.tmp", 5), "x"),
                            remoteFile("../x", "x"), remoteFile("../a.tmp", "x")}}};
    QCOMPARE(recorded.mirror(tree), u"success"_s);
    QCOMPARE(recorded.log(1),
             (QStringList{u"Skipping symlink '../canary.txt'."_s, u"Skipping unsafe name '../x'."_s,
                          u"Skipping unsafe name '../a.tmp'."_s}));
    QCOMPARE(local.read(), QStringList());
    QCOMPARE(local.harm(), QString());
}

void TestPruning::honestNamesAreServed_data() { addForms(); }

void TestPruning::honestNamesAreServed()
{
#ifdef Q_OS_WIN
    QSKIP("many of these names are not to be had on Windows");
#endif
    QFETCH(const FtpTreeOptions::Listing, form);
    RemoteTree tree{{"/", {}}};
    QStringList expected;
    QStringList lines;
    qint64 bytes = 0;
    for (const QByteArray &name : honestNames()) {
        const QByteArray content = "<" + name.left(9).toHex() + ">";
        tree["/"] += remoteFile(name, content, kTime);
        bytes += content.size();
        expected += QString::fromUtf8(name + ": " + content);
        lines += u"Downloading /"_s + QString::fromUtf8(name) + u" (new)"_s;
    }
    LocalFolder local({u"extra: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    const qsizetype count = honestNames().size();
    QCOMPARE(recorded.mirror(tree, {.listing = form}),
             u"success downloaded=%1 deleted=1 bytes=%2"_s.arg(count).arg(bytes));
    QCOMPARE(recorded.log(0).filter(u"Downloading"_s), lines);
    QCOMPARE(local.read(), sorted(expected));
    QCOMPARE(recorded.mirror(tree, {.listing = form}), u"success upToDate=%1"_s.arg(count));
    QCOMPARE(recorded.log(0).size(), qsizetype(2));
    QCOMPARE(local.read(), sorted(expected));
    QCOMPARE(local.harm(), QString());
}

void TestPruning::honestNamesOfFolders_data() { addForms(); }

void TestPruning::honestNamesOfFolders()
{
#ifdef Q_OS_WIN
    QSKIP("many of these names are not to be had on Windows");
#endif
    QFETCH(const FtpTreeOptions::Listing, form);
    RemoteTree tree{{"/", {}}};
    QStringList expected;
    for (const QByteArray &name : honestNames()) {
        tree["/"] += remoteFolder(name);
        tree["/" + name] = {remoteFile("f", "1", kTime), remoteFolder("g")};
        tree["/" + name + "/g"] = {};
        expected += {QString::fromUtf8(name) + u"/f: 1"_s, QString::fromUtf8(name) + u"/g/"_s};
    }
    LocalFolder local({u"extra/b: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    const qsizetype count = honestNames().size();
    QCOMPARE(recorded.mirror(tree, {.listing = form}),
             u"success downloaded=%1 deleted=1 bytes=%1"_s.arg(count));
    QCOMPARE(local.read(), sorted(expected));
    QCOMPARE(recorded.mirror(tree, {.listing = form}), u"success upToDate=%1"_s.arg(count));
    QCOMPARE(local.read(), sorted(expected));
    QCOMPARE(local.harm(), QString());
}

void TestPruning::composedAndDecomposedNamesAreTwo()
{
    const QByteArray composed = "\xc3\xa9";
    const QByteArray decomposed = "e\xcc\x81";
    LocalFolder local({QString::fromUtf8(decomposed) + u": x"_s});
    if (QFile::exists(local.filePath(QString::fromUtf8(composed))))
        QSKIP("this disk does not tell the two apart");
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror({{"/", {remoteFile(composed, "1")}}}),
             u"success downloaded=1 deleted=1 bytes=1"_s);
    QCOMPARE(local.read(), QStringList{QString::fromUtf8(composed) + u": 1"_s});
}

void TestPruning::namesWithLineBreaksReachNoServer()
{
    // A carriage return does not end a line of a listing, but it may end a command.
    LocalFolder local;
    RecordedWorker recorded(local.path());
    const RemoteTree tree{
        {"/", {remoteFile("a\rDELE b", "1"), remoteFolder("c\rMKD d"), remoteFile("z", "1")}}};
    QCOMPARE(recorded.mirror(tree, {.faults = {}}),
             u"downloaded=1 failed=2 bytes=1 message='Cannot change to remote directory '/c\rMKD d''"_s);
    QCOMPARE(paths(recorded), (QByteArrayList{"CWD /", "RETR /z"}));
    for (const QByteArray &command : std::as_const(recorded.commands))
        QVERIFY2(!command.contains("DELE") && !command.contains("MKD"), command.constData());
}

// Links in the local folder

void TestPruning::aLinkInPlaceOfAFolderIsNotFollowed_data()
{
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QString>("link");
    QTest::newRow("to a folder beside") << QStringList{u"sub -> ../canary"_s} << u"sub"_s;
    QTest::newRow("to the folder around") << QStringList{u"sub -> .."_s} << u"sub"_s;
    QTest::newRow("to the one around that") << QStringList{u"sub -> ../.."_s} << u"sub"_s;
    QTest::newRow("to a folder of a name alike") << QStringList{u"sub -> ../local.canary"_s} << u"sub"_s;
    QTest::newRow("by way of a folder inside")
        << QStringList{u"sub -> via/../../canary"_s, u"via/x: x"_s} << u"sub"_s;
    QTest::newRow("by way of a link inside")
        << QStringList{u"sub -> hop"_s, u"hop -> ../canary"_s} << u"sub"_s;
    QTest::newRow("to a folder in one beside") << QStringList{u"sub -> ../canary/deep"_s} << u"sub"_s;
    QTest::newRow("absolute") << QStringList{u"sub -> ABOVE/canary"_s} << u"sub"_s;
    QTest::newRow("deeper") << QStringList{u"in/sub -> ../../canary"_s} << u"in/sub"_s;
    QTest::newRow("to a file beside") << QStringList{u"sub -> ../canary.txt"_s} << u"sub"_s;
}

void TestPruning::aLinkInPlaceOfAFolderIsNotFollowed()
{
    QFETCH(QStringList, lines);
    QFETCH(const QString, link);
    LocalFolder local;
    lines.replaceInStrings(u"ABOVE"_s, local.besidePath(u"."_s).chopped(2));
    plant(local.path(), lines);
    const QString target = QFile::symLinkTarget(local.filePath(link));
    const bool isInside = link.contains(u'/');
    // The server lists what is there in another form, and leaves out the rest, which would be pruned.
    const QList<RemoteEntry> inSub = {remoteFile("inner.txt", "evil", kTime), remoteFolder("deep"),
                                      remoteFile("canary.txt", "evil", kTime), remoteFolder("canary")};
    RemoteTree tree{{"/", {remoteFolder("sub"), remoteFile("z", "1", kTime)}}, {"/sub", inSub}};
    for (const char *folder : {"/sub/deep", "/sub/canary", "/in/sub/deep", "/in/sub/canary"})
        tree[folder] = {remoteFile("innermost.txt", "evil", kTime)};
    if (isInside) {
        tree["/"] = {remoteFolder("in"), remoteFile("z", "1", kTime)};
        tree["/in"] = {remoteFolder("sub")};
        tree["/in/sub"] = inSub;
    }
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.syncMode = FullSync;
    recorded.config.excludes = {u"hop"_s, u"via"_s}; // which the link needs
    const QString told = recorded.mirror(tree);
    const bool isFolder = QFileInfo(target).isDir();
    QVERIFY2(told.startsWith(u"downloaded=1 ") &&
                 told.endsWith(u"failed=1 bytes=1 message='The mirror did not complete.'"),
             qPrintable(told));
    QCOMPARE(recorded.log(2), QStringList{u"Not following the link 'LOCAL/%1'."_s.arg(link)});
    QVERIFY(!paths(recorded).contains("CWD /" + link.toUtf8()));
    // A link to a folder is kept since the server has one of its name; one to a file goes.
    QCOMPARE(local.read().filter(link + u" -> "_s).size(), isFolder ? qsizetype(1) : qsizetype(0));
    QVERIFY(local.read().contains(u"z: 1"_s));
    QCOMPARE(local.harm(), QString());
}

void TestPruning::aLinkToAFileMayGoTheNextTime()
{
    const RemoteTree tree{{"/", {remoteFolder("sub")}}, {"/sub", {remoteFile("a", "1", kTime)}}};
    LocalFolder local({u"sub -> ../canary.txt"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(tree), u"deleted=1 failed=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.mirror(tree), u"success downloaded=1 bytes=1"_s);
    QCOMPARE(local.read(), QStringList{u"sub/a: 1"_s});
    QCOMPARE(local.harm(), QString());
}

void TestPruning::aLinkInsideTheFolderIsNotFollowed()
{
    // Followed, the link would have each of the two prune what the other fetches, run after run.
    LocalFolder local({u"real/a: x"_s, u"sub -> real"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.compareBy = SizeOnly;
    const RemoteTree tree{{"/", {remoteFolder("real"), remoteFolder("sub")}},
                          {"/real", {remoteFile("a", "x")}},
                          {"/sub", {remoteFile("b", "new")}}};
    QCOMPARE(recorded.mirror(tree), u"upToDate=1 failed=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2), QStringList{u"Not following the link 'LOCAL/sub'."_s});
    QCOMPARE(local.read(), (QStringList{u"real/a: x"_s, u"sub -> real"_s}));
    QCOMPARE(local.harm(), QString());
}

void TestPruning::theLocalFolderItselfMayBeALink()
{
    LocalFolder local({u"real/extra: x"_s, u"link -> real"_s, u"real/in/extra: x"_s,
                       u"real/out -> ../beside"_s, u"beside/mine: x"_s});
    RecordedWorker recorded(local.filePath(u"link"_s));
    recorded.config.deleteExtraneous = true;
    const RemoteTree tree{{"/", {remoteFile("a", "1", kTime), remoteFolder("in"), remoteFolder("out")}},
                          {"/in", {remoteFile("b", "2", kTime)}},
                          {"/out", {remoteFile("evil", "2", kTime)}}};
    QCOMPARE(recorded.mirror(tree),
             u"downloaded=2 deleted=2 failed=1 bytes=2 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2), QStringList{u"Not following the link 'LOCAL/out'."_s});
    QCOMPARE(local.read(), (QStringList{u"beside/mine: x"_s, u"link -> real"_s, u"real/a: 1"_s,
                                        u"real/in/b: 2"_s, u"real/out -> ../beside"_s}));
    QCOMPARE(local.harm(), QString());
}

void TestPruning::aLinkInPlaceOfAFileIsReplaced_data()
{
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<int>("syncMode");
    QTest::newRow("to a file outside") << QStringList{u"a -> ../canary.txt"_s} << int(NewAndChanged);
    QTest::newRow("to a file outside, full sync") << QStringList{u"a -> ../canary.txt"_s} << int(FullSync);
    QTest::newRow("to a folder outside") << QStringList{u"a -> ../canary"_s} << int(NewAndChanged);
    QTest::newRow("to a folder outside, full sync") << QStringList{u"a -> ../canary"_s} << int(FullSync);
    QTest::newRow("to the folder around") << QStringList{u"a -> .."_s} << int(FullSync);
    QTest::newRow("to nothing outside") << QStringList{u"a -> ../nothing"_s} << int(NewAndChanged);
    QTest::newRow("to nothing outside, new only") << QStringList{u"a -> ../nothing"_s} << int(NewOnly);
    QTest::newRow("to itself") << QStringList{u"a -> a"_s} << int(NewAndChanged);
    QTest::newRow("by way of another")
        << QStringList{u"a -> hop"_s, u"hop -> ../canary.txt"_s} << int(FullSync);
}

void TestPruning::aLinkInPlaceOfAFileIsReplaced()
{
    QFETCH(const QStringList, lines);
    QFETCH(const int, syncMode);
    LocalFolder local(lines);
    RecordedWorker recorded(local.path());
    recorded.config.syncMode = syncMode;
    recorded.config.deleteExtraneous = true;
    const QString told = recorded.mirror({{"/", {remoteFile("a", "evil", kTime)}}});
    QVERIFY2(told.startsWith(u"success downloaded=1 "), qPrintable(told));
    QCOMPARE(local.read(), QStringList{u"a: evil"_s});
    QCOMPARE(fileTime(local.filePath(u"a"_s)), kTime);
    QCOMPARE(local.harm(), QString());
}

void TestPruning::aLinkedFileThatIsUpToDateStays()
{
    LocalFolder local({u"a -> ../canary.txt"_s});
    const QByteArray content(QFileInfo(local.besidePath(u"canary.txt"_s)).size(), 'x');
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.compareBy = SizeOnly;
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", content, kTime)}}}), u"success upToDate=1"_s);
    QCOMPARE(local.read(), QStringList{u"a -> ../canary.txt"_s});
    QCOMPARE(local.harm(), QString());
}

void TestPruning::aDanglingLinkInPlaceOfAFolder()
{
    for (const QString &line : {u"sub -> ../nothing"_s, u"sub -> nothing"_s, u"sub -> sub"_s}) {
        const RemoteTree tree{{"/", {remoteFolder("sub"), remoteFile("z", "1", kTime)}},
                              {"/sub", {remoteFile("a", "1", kTime)}}};
        LocalFolder local({line});
        RecordedWorker recorded(local.path());
        QCOMPARE(recorded.mirror(tree),
                 u"downloaded=1 failed=1 bytes=1 message='The mirror did not complete.'"_s);
        QCOMPARE(recorded.log(2), QStringList{u"Cannot create 'LOCAL/sub'."_s});
        QCOMPARE(local.read(), (QStringList{line, u"z: 1"_s}));
        QCOMPARE(local.harm(), QString());

        recorded.config.deleteExtraneous = true; // clears the way
        QCOMPARE(recorded.mirror(tree),
                 u"upToDate=1 deleted=1 failed=1 message='The mirror did not complete.'"_s);
        QCOMPARE(recorded.mirror(tree), u"success downloaded=1 upToDate=1 bytes=1"_s);
        QCOMPARE(local.read(), (QStringList{u"sub/a: 1"_s, u"z: 1"_s}));
        QCOMPARE(local.harm(), QString());
    }
}

void TestPruning::aWorkingFileThatIsALinkIsReplaced_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("to a file outside") << u"../canary.txt"_s;
    QTest::newRow("to nothing outside") << u"../nothing"_s;
    QTest::newRow("to a folder outside") << u"../canary"_s;
    QTest::newRow("to itself") << u"a.part"_s;
}

void TestPruning::aWorkingFileThatIsALinkIsReplaced()
{
    QFETCH(const QString, target);
    LocalFolder local({u"a.part -> "_s + target});
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "evil", kTime)}}}), u"success downloaded=1 bytes=4"_s);
    QCOMPARE(local.read(), QStringList{u"a: evil"_s});
    QCOMPARE(local.harm(), QString());
}

void TestPruning::aHardLinkIsNotWrittenThrough()
{
    LocalFolder local;
    std::filesystem::create_hard_link(local.besidePath(u"canary.txt"_s).toStdString(),
                                      local.filePath(u"a"_s).toStdString());
    RecordedWorker recorded(local.path());
    recorded.config.syncMode = FullSync;
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "evil", kTime)}}}), u"success downloaded=1 bytes=4"_s);
    QCOMPARE(local.read(), QStringList{u"a: evil"_s});
    QCOMPARE(local.harm(), QString());
}

void TestPruning::prunedLinksAreRemovedThemselves_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("to a file outside") << u"../canary.txt"_s;
    QTest::newRow("to a folder outside") << u"../canary"_s;
    QTest::newRow("to the folder around") << u".."_s;
    QTest::newRow("to a file inside") << u"kept/a"_s;
    QTest::newRow("to a folder inside") << u"kept"_s;
    QTest::newRow("to the folder itself") << u"."_s;
    QTest::newRow("to nothing") << u"../nothing"_s;
    QTest::newRow("to itself") << u"link"_s;
}

void TestPruning::prunedLinksAreRemovedThemselves()
{
    QFETCH(const QString, target);
    LocalFolder local({u"link -> "_s + target, u"kept/a: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.compareBy = SizeOnly;
    const RemoteTree tree{{"/", {remoteFolder("kept")}}, {"/kept", {remoteFile("a", "x")}}};
    QCOMPARE(recorded.mirror(tree), u"success upToDate=1 deleted=1"_s);
    QCOMPARE(recorded.log(0).filter(u"Deleted"_s), QStringList{u"Deleted LOCAL/link"_s});
    QCOMPARE(local.read(), QStringList{u"kept/a: x"_s});
    QCOMPARE(local.harm(), QString());
}

void TestPruning::linksAreKeptAsWhatTheyPointTo_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("recursive");
    QTest::addColumn<RemoteEntry>("remote");
    QTest::addColumn<bool>("stays");
    const auto row = [](const char *what, const QString &target, bool recursive, const RemoteEntry &remote,
                        bool stays) { QTest::newRow(what) << target << recursive << remote << stays; };
    row("a file's, the server has the file", u"../canary.txt"_s, true, remoteFile("a", "x"), true);
    row("a folder's, the server has a file", u"../canary"_s, true, remoteFile("a", "x"), false);
    row("a folder's, the server has the folder", u"../canary"_s, true, remoteFolder("a"), true);
    row("a file's, the server has a folder", u"../canary.txt"_s, true, remoteFolder("a"), false);
    row("nobody's, the server has a file", u"../nothing"_s, true, remoteFile("a", "x"), true);
    row("nobody's, the server has a folder", u"../nothing"_s, true, remoteFolder("a"), false);
    row("a folder's, the server has a link", u"../canary"_s, true, remoteLink("a"), false);
    row("a folder's, not recursive", u"../canary"_s, false, remoteFile("b", "x"), true);
    row("a file's, not recursive", u"../canary.txt"_s, false, remoteFile("b", "x"), false);
    row("nobody's, not recursive", u"../nothing"_s, false, remoteFile("b", "x"), false);
    row("a folder's, the server has the folder, not recursive", u"../canary"_s, false, remoteFolder("a"),
        true);
}

void TestPruning::linksAreKeptAsWhatTheyPointTo()
{
    QFETCH(const QString, target);
    QFETCH(const bool, recursive);
    QFETCH(const RemoteEntry, remote);
    QFETCH(const bool, stays);
    LocalFolder local({u"a -> "_s + target, u"c.part -> "_s + target, u"d.tmp -> "_s + target});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.recursive = recursive;
    recorded.config.excludes = {u"*.tmp"_s};
    // The download is refused, so that the link is still there when it comes to pruning.
    const FtpTreeOptions options{
        .faults = {Fault::at("RETR /a").reply("550 no"), Fault::at("RETR /b").reply("550 no")}};
    recorded.mirror({{"/", {remote}}, {"/a", {}}}, options);
    QStringList expected = {u"a -> "_s + target, u"c.part -> "_s + target, u"d.tmp -> "_s + target};
    if (!stays)
        expected.removeFirst();
    QCOMPARE(local.read(), expected);
    QCOMPARE(recorded.log(0).filter(u"Deleted"_s), stays ? QStringList() : QStringList{u"Deleted LOCAL/a"_s});
    QCOMPARE(local.harm(), QString());
}

void TestPruning::aPrunedFolderIsNotLeftThroughItsLinks()
{
    LocalFolder local({u"old/a: x"_s, u"old/file -> ../../canary.txt"_s, u"old/folder -> ../../canary"_s,
                       u"old/up -> ../.."_s, u"old/in/nothing -> nothing"_s, u"old/in/inside -> ../../kept"_s,
                       u"kept/a: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.compareBy = SizeOnly;
    const RemoteTree tree{{"/", {remoteFolder("kept")}}, {"/kept", {remoteFile("a", "x")}}};
    QCOMPARE(recorded.mirror(tree), u"success upToDate=1 deleted=1"_s);
    QCOMPARE(local.read(), QStringList{u"kept/a: x"_s});
    QCOMPARE(local.harm(), QString());
}

void TestPruning::aSessionThatIsLostOverTheTimesPrunesNothing()
{
    const LocalFolder local({u"a: x"_s, u"b: x"_s, u"old: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    const FtpTreeOptions options{.listing = FtpTreeOptions::Unix, .faults = {Fault::at("MDTM a").close()}};
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "x"), remoteFile("b", "x")}}}, options),
             u"upToDate=2 message='Not connected'"_s);
    QCOMPARE(local.read(), (QStringList{u"a: x"_s, u"b: x"_s, u"old: x"_s}));
}

void TestPruning::theFolderThatIsPrunedIsTheOneThatIsFilled()
{
    // For the system the way up from behind a link leads elsewhere than for who reads the path.
    LocalFolder local({u"away -> ../canary/deep"_s, u"job/old: x"_s});
    RecordedWorker recorded(local.filePath(u"away/../job"_s));
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "1", kTime)}}}),
             u"success downloaded=1 deleted=1 bytes=1"_s);
    QCOMPARE(local.read(), sorted({u"away -> ../canary/deep"_s, u"job/a: 1"_s}));
    QCOMPARE(local.harm(), QString());
}

QTEST_GUILESS_MAIN(TestPruning)
#include "tst_Pruning.moc"
