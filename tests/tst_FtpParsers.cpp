#include "ftp/FtpClient.h"
#include "support/LocalZone.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

/** "file a.txt 5 2020-01-02T03:04:05Z", with "-" for an unknown time. */
QString describe(const FtpEntry &entry)
{
    QString kind = u"file"_s;
    if (entry.isDir && entry.isSymlink)
        kind = u"both"_s;
    else if (entry.isDir)
        kind = u"dir"_s;
    else if (entry.isSymlink)
        kind = u"link"_s;
    const QString time = entry.modified.isValid() ? entry.modified.toString(Qt::ISODate) : u"-"_s;
    return kind + u' ' + entry.name + u' ' + QString::number(entry.size) + u' ' + time;
}

QStringList describe(const QList<FtpEntry> &entries)
{
    QStringList texts;
    for (const FtpEntry &entry : entries)
        texts += describe(entry);
    return texts;
}

} // namespace

class TestFtpParsers : public QObject
{
    Q_OBJECT

private slots:
    void anEntryKnowsNothingAtFirst();
    void mlsdLines_data();
    void mlsdLines();
    void unixLines_data();
    void unixLines();
    void dosLines_data();
    void dosLines();
    void listLines_data();
    void listLines();
    void listingsAreSplitIntoLines_data();
    void listingsAreSplitIntoLines();
    void timevals_data();
    void timevals();
    void timevalsAreUtcInEveryZone_data();
    void timevalsAreUtcInEveryZone();
};

void TestFtpParsers::anEntryKnowsNothingAtFirst() { QCOMPARE(describe(FtpEntry()), u"file  -1 -"_s); }

void TestFtpParsers::mlsdLines_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QString>("entry"); // empty: dropped
    const auto row = [](const char *what, const QByteArray &line, const QString &entry = QString()) {
        QTest::newRow(what) << line << entry;
    };

    row("file", "type=file;size=5;modify=20200102030405;perm=r; a.txt",
        u"file a.txt 5 2020-01-02T03:04:05Z"_s);
    row("folder", "type=dir;modify=20200102030405; sub", u"dir sub -1 2020-01-02T03:04:05Z"_s);
    row("no blank", "type=file;size=5;a.txt");
    row("no facts", " a.txt", u"file a.txt -1 -"_s);
    row("no size", "type=file;modify=20200102030405; a", u"file a -1 2020-01-02T03:04:05Z"_s);
    row("no time", "type=file;size=5; a", u"file a 5 -"_s);
    row("no type", "size=5; a", u"file a 5 -"_s);

    row("name that is empty", "type=file;size=5; ");
    row("name of blanks", "type=file;size=5;    ");
    row("dot", "type=dir; .");
    row("dot dot", "type=dir; ..");
    row("dot with blanks", "type=dir;  . ");
    row("three dots are a name", "type=file; ...", u"file ... -1 -"_s);
    row("name with blanks inside", "type=file; a  b c", u"file a  b c -1 -"_s);
    row("name with blanks around", "type=file;   a \t", u"file a -1 -"_s);
    row("name like facts", "type=file; size=9; b", u"file size=9; b -1 -"_s);
    row("blank in front of the facts", " type=dir; a", u"file type=dir; a -1 -"_s);
    row("name that leads out", "type=file; ../../x", u"file ../../x -1 -"_s);
    row("name with a NUL", QByteArray("type=file; a\0b", 14), u"file a\0b -1 -"_s);
    row("name with a carriage return", "type=file; a\rb", u"file a\rb -1 -"_s);
    row("honest odd name", "type=file; -rf [a]*;b%20~", u"file -rf [a]*;b%20~ -1 -"_s);
    row("composed letter", "type=file; \xC3\xA9", u"file \u00E9 -1 -"_s);
    row("decomposed letter", "type=file; e\xCC\x81", u"file e\u0301 -1 -"_s);
    row("letter beyond 16 bits", "type=file; \xF0\x9F\x90\x9A", u"file \U0001F41A -1 -"_s);
    row("not UTF-8", "type=file; caf\xE9.txt", u"file caf\uFFFD.txt -1 -"_s);
    row("letter cut off by the end of the line", "type=file; a\xE2\x82", u"file a\uFFFD\uFFFD -1 -"_s);
    row("name with a byte order mark",
        "type=file; \xEF\xBB\xBF"
        "a",
        u"file \uFEFFa -1 -"_s);

    row("listed folder", "type=cdir;modify=20200102030405; sub");
    row("parent folder", "type=pdir; up");
    row("listed folder in capitals", "Type=CDIR; sub");
    row("listed folder behind a type", "type=file;type=cdir; a");
    row("capitals", "TYPE=DIR;SIZE=4096;MODIFY=20200102030405; Sub", u"dir Sub 4096 2020-01-02T03:04:05Z"_s);
    row("link", "type=OS.unix=slink:/target;size=4; now", u"link now 4 -"_s);
    row("link without a target", "type=OS.unix=slink; now", u"link now -1 -"_s);
    row("link in lower case", "type=os.unix=slink:x; now", u"link now -1 -"_s);
    row("another word for a link", "type=OS.unix=symlink; now", u"file now -1 -"_s);
    row("device", "type=OS.unix=chr-4/64; tty", u"file tty -1 -"_s);
    row("unknown type", "type=dirt; a", u"file a -1 -"_s);
    row("folder with a dotted I", "type=d\xC4\xB0r; a", u"file a -1 -"_s);
    row("link with a Kelvin sign", "type=os.unix=slin\xE2\x84\xAA; a", u"link a -1 -"_s);
    row("empty type", "type=; a", u"file a -1 -"_s);
    row("file takes back the folder", "type=dir;type=file; a", u"file a -1 -"_s);
    row("folder takes back the link", "type=OS.unix=slink;type=dir; a", u"dir a -1 -"_s);
    row("link takes back the folder", "type=dir;type=OS.unix=slink; a", u"link a -1 -"_s);

    row("size that is no number", "size=many; a", u"file a 0 -"_s);
    row("size that is empty", "size=; a", u"file a 0 -"_s);
    row("size with a unit", "size=5k; a", u"file a 0 -"_s);
    row("largest size", "size=9223372036854775807; a", u"file a 9223372036854775807 -"_s);
    row("size beyond 64 bits", "size=9223372036854775808; a", u"file a 0 -"_s);
    row("size of many zeros", "size=0000000000000000000042; a", u"file a 42 -"_s);
    row("size with a sign", "size=-5; a", u"file a -5 -"_s);
    row("later size counts", "size=1;size=2; a", u"file a 2 -"_s);
    row("size of a folder's content", "type=dir;sizd=4096; a", u"dir a -1 -"_s);

    row("fraction of a second", "modify=20200102030405.678; a", u"file a -1 2020-01-02T03:04:05Z"_s);
    row("time that is no time", "modify=yesterday; a", u"file a -1 -"_s);
    row("time that is empty", "modify=; a", u"file a -1 -"_s);
    row("later time counts, though invalid", "modify=20200102030405;modify=x; a", u"file a -1 -"_s);

    row("fact without a value", "perm;size=5; a", u"file a 5 -"_s);
    row("facts that are empty", ";;size=5;; a", u"file a 5 -"_s);
    row("facts without an end", "type=dir;size=5 a", u"dir a 5 -"_s);
    row("facts with tabs", "\tSize\t=\t5\t;type\t=\tdir; a", u"dir a 5 -"_s);
    row("keys that only begin alike", "sizes=1;types=dir;modify2=20200102030405; a", u"file a -1 -"_s);
    row("key with a long s", "\xC5\xBFize=5; a", u"file a -1 -"_s);
    row("facts with blanks of Unicode",
        "\xC2\xA0size\xE3\x80\x80=\xE2\x80\x83"
        "5; a",
        u"file a 5 -"_s);
    row("key that is empty", "=5;size=3; a", u"file a 3 -"_s);
    row("other facts", "unique=801g4;perm=adfr;UNIX.mode=0644;lang=en; a", u"file a -1 -"_s);
}

void TestFtpParsers::mlsdLines()
{
    QFETCH(const QByteArray, line);
    QFETCH(const QString, entry);
    const QStringList expected = entry.isEmpty() ? QStringList() : QStringList(entry);
    QCOMPARE(describe(FtpClient::parseMlsd(line + "\r\n")), expected);
}

void TestFtpParsers::unixLines_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("entry"); // empty: not of this form
    const auto row = [](const char *what, const QString &line, const QString &entry = QString()) {
        QTest::newRow(what) << line << entry;
    };

    row("file", u"-rw-r--r-- 1 kim web 512 Jan 29 23:32 a.txt"_s, u"file a.txt 512 -"_s);
    row("file of another year", u"-rw-r--r-- 1 kim web 512 Jan  2  2020 a.txt"_s, u"file a.txt 512 -"_s);
    row("folder", u"drwxr-xr-x 3 kim web 4096 Jan 2 2020 sub"_s, u"dir sub 4096 -"_s);
    row("columns apart", u"-rw-r--r--    1   kim     web      512 Jan  2  2020   a.txt"_s,
        u"file a.txt 512 -"_s);
    row("tabs for blanks", u"-rw-r--r--\t1\tkim\tweb\t512\tJan\t2\t2020\ta.txt"_s, u"file a.txt 512 -"_s);
    row("rarer blanks", u"-rw-r--r--\v1\fkim\rweb 512 Jan 2 2020 a.txt"_s, u"file a.txt 512 -"_s);
    row("blank of Unicode", u"-rw-r--r-- 1 kim web 512 Jan 2\u00A02020 a.txt"_s);
    row("digit of Unicode", u"-rw-r--r-- 1 kim web 51\u0662 Jan 2 2020 a.txt"_s);
    row("owner without a group", u"-rw-r--r-- 1 kim 512 Jan 2 2020 a.txt"_s, u"file a.txt 512 -"_s);
    row("three owners", u"-rw-r--r-- 1 kim web staff 512 Jan 2 2020 a.txt"_s);
    row("owner by number", u"-rw-r--r-- 1 1000 1000 512 Jan 2 2020 a.txt"_s, u"file a.txt 512 -"_s);
    row("month by number, without a group", u"-rw-r--r-- 1 kim 123 456 12 2020 7 a"_s, u"file 7 a 123 -"_s);
    row("month of letters beyond 16 bits", u"-rw-r--r-- 1 kim web 5 a\U0001F41Ab 2 2020 a"_s,
        u"file a 5 -"_s);
    row("one-digit hour", u"-rw-r--r-- 1 kim web 5 Jan 2 9:05 a"_s, u"file a 5 -"_s);
    row("month in another tongue", u"-rw-r--r-- 1 kim web 5 Mär 2 2020 a"_s, u"file a 5 -"_s);
    row("month of four letters", u"-rw-r--r-- 1 kim web 5 Sept 2 2020 a"_s);
    row("date of digits", u"-rw-r--r-- 1 kim web 5 2020-01-02 03:04 a"_s);
    row("year of five digits", u"-rw-r--r-- 1 kim web 5 Jan 2 20200 a"_s);

    row("link", u"lrwxrwxrwx 1 kim web 4 Jan 2 2020 now -> 2020/01"_s, u"link now 4 -"_s);
    row("link without a target", u"lrwxrwxrwx 1 kim web 4 Jan 2 2020 now"_s, u"link now 4 -"_s);
    row("link with blanks in front of its arrow", u"lrwxrwxrwx 1 kim web 4 Jan 2 2020 a \t -> b"_s,
        u"link a 4 -"_s);
    row("link with two arrows", u"lrwxrwxrwx 1 kim web 4 Jan 2 2020 a -> b -> c"_s, u"link a 4 -"_s);
    row("link that begins with an arrow", u"lrwxrwxrwx 1 kim web 4 Jan 2 2020 -> x"_s, u"link -> x 4 -"_s);
    row("arrow without blanks", u"lrwxrwxrwx 1 kim web 4 Jan 2 2020 a->b"_s, u"link a->b 4 -"_s);
    row("file with an arrow", u"-rw-r--r-- 1 kim web 4 Jan 2 2020 a -> b"_s, u"file a -> b 4 -"_s);

    row("access list", u"-rw-r--r--+ 1 kim web 5 Jan 2 2020 a"_s, u"file a 5 -"_s);
    row("security label", u"-rw-r--r--. 1 kim web 5 Jan 2 2020 a"_s, u"file a 5 -"_s);
    row("attributes", u"-rw-r--r--@ 1 kim web 5 Jan 2 2020 a"_s, u"file a 5 -"_s);
    row("another sign behind the rights", u"-rw-r--r--! 1 kim web 5 Jan 2 2020 a"_s);
    row("set-user and sticky bits", u"drwsr-SrwT 1 kim web 5 Jan 2 2020 a"_s, u"dir a 5 -"_s);
    row("rights too short", u"-rw-r--r- 1 kim web 5 Jan 2 2020 a"_s);
    row("rights too long", u"-rw-r--r--- 1 kim web 5 Jan 2 2020 a"_s);
    row("unknown right", u"-rw-r--r-q 1 kim web 5 Jan 2 2020 a"_s);

    row("character device", u"crw-r--r-- 1 kim web 4 Jan 2 2020 tty"_s);
    row("block device", u"brw-r--r-- 1 kim web 4 Jan 2 2020 sda"_s);
    row("pipe", u"prw-r--r-- 1 kim web 0 Jan 2 2020 fifo"_s);
    row("socket", u"srw-r--r-- 1 kim web 0 Jan 2 2020 sock"_s);
    row("capital type", u"Drwxr-xr-x 3 kim web 4096 Jan 2 2020 sub"_s);
    row("device numbers for a size", u"-rw-r--r-- 1 kim web 4, 64 Jan 2 2020 a"_s);
    row("no links", u"-rw-r--r-- kim web 5 Jan 2 2020 a"_s);
    row("no name", u"-rw-r--r-- 1 kim web 5 Jan 2 2020 "_s);
    row("text in front", u"x -rw-r--r-- 1 kim web 5 Jan 2 2020 a"_s);
    row("size beyond 64 bits", u"-rw-r--r-- 1 kim web 99999999999999999999 Jan 2 2020 a"_s, u"file a 0 -"_s);
    row("size beyond 32 bits", u"-rw-r--r-- 1 kim web 5000000000 Jan 2 2020 a"_s, u"file a 5000000000 -"_s);

    row("name with blanks", u"-rw-r--r-- 1 kim web 5 Jan 2 2020 a  b.txt"_s, u"file a  b.txt 5 -"_s);
    row("name with blanks around", u"-rw-r--r-- 1 kim web 5 Jan 2 2020   a "_s, u"file a 5 -"_s);
    row("name like a date", u"-rw-r--r-- 1 kim web 5 Jan 2 2020 7 Feb 3 2021 b"_s,
        u"file 7 Feb 3 2021 b 5 -"_s);
    row("name of blanks is for the caller to drop", u"-rw-r--r-- 1 kim web 5 Jan 2 2020  "_s, u"file  5 -"_s);
    row("line feed behind the name", u"-rw-r--r-- 1 kim web 5 Jan 2 2020 a\n"_s, u"file a 5 -"_s);
    row("line feed within the name", u"-rw-r--r-- 1 kim web 5 Jan 2 2020 a\nb"_s);
    row("line feeds in front of the name", u"-rw-r--r-- 1 kim web 5 Jan 2 2020\n\na"_s, u"file a 5 -"_s);
    row("half a letter in the name", u"-rw-r--r-- 1 kim web 5 Jan 2 2020 a"_s + QChar(0xD83D));
    row("name in Unicode", u"-rw-r--r-- 1 kim web 5 Jan 2 2020 \u00FC\U0001F41A"_s,
        u"file \u00FC\U0001F41A 5 -"_s);
    row("name that leads out", u"-rw-r--r-- 1 kim web 5 Jan 2 2020 ../x"_s, u"file ../x 5 -"_s);
    row("dot is for the caller to drop", u"drwxr-xr-x 3 kim web 4096 Jan 2 2020 ."_s, u"dir . 4096 -"_s);
    row("DOS form", u"01-02-20  03:04PM  5 a.txt"_s);
    row("empty", QString());
}

void TestFtpParsers::unixLines()
{
    QFETCH(const QString, line);
    QFETCH(const QString, entry);
    FtpEntry parsed;
    QCOMPARE(FtpClient::parseUnixLine(line, &parsed), !entry.isEmpty());
    if (!entry.isEmpty())
        QCOMPARE(describe(parsed), entry);
}

void TestFtpParsers::dosLines_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("entry"); // empty: not of this form
    const auto row = [](const char *what, const QString &line, const QString &entry = QString()) {
        QTest::newRow(what) << line << entry;
    };

    row("file", u"01-02-20  03:04PM                  512 a.txt"_s, u"file a.txt 512 -"_s);
    row("folder", u"01-02-20  03:04AM       <DIR>          sub"_s, u"dir sub -1 -"_s);
    row("year of four digits", u"01-02-2020  03:04PM  512 a.txt"_s, u"file a.txt 512 -"_s);
    row("year of three digits", u"01-02-202  03:04PM  512 a.txt"_s, u"file a.txt 512 -"_s);
    row("year of five digits", u"01-02-20200  03:04PM  512 a.txt"_s);
    row("one-digit hour", u"01-02-20  3:04PM  512 a.txt"_s, u"file a.txt 512 -"_s);
    row("lower case", u"01-02-20  03:04pm  512 a.txt"_s, u"file a.txt 512 -"_s);
    row("blank in front of PM", u"01-02-20  03:04 PM  512 a.txt"_s, u"file a.txt 512 -"_s);
    row("blank behind A", u"01-02-20  03:04 A M  512 a.txt"_s);
    row("digit of Unicode", u"01-02-20  03:04PM  51\u0662 a.txt"_s);
    row("half a letter in the name", u"01-02-20  03:04PM  512 a"_s + QChar(0xDC1A));
    row("24 hours", u"01-02-20  15:04  512 a.txt"_s);
    row("slashes", u"01/02/20  03:04PM  512 a.txt"_s);
    row("folder in lower case", u"01-02-20  03:04AM  <dir>  sub"_s);
    row("junction", u"01-02-20  03:04AM  <JUNCTION>  sub"_s);
    row("name with blanks", u"01-02-20  03:04PM  5 a  b"_s, u"file a  b 5 -"_s);
    row("name with blanks around", u"01-02-20  03:04PM  5   a "_s, u"file a 5 -"_s);
    row("name with an arrow", u"01-02-20  03:04PM  5 a -> b"_s, u"file a -> b 5 -"_s);
    row("size beyond 32 bits", u"01-02-20  03:04PM  5000000000 a"_s, u"file a 5000000000 -"_s);
    row("size beyond 64 bits", u"01-02-20  03:04PM  99999999999999999999 a"_s, u"file a 0 -"_s);
    row("no size", u"01-02-20  03:04PM  a.txt"_s);
    row("no name", u"01-02-20  03:04PM  512 "_s);
    row("name of blanks is for the caller to drop", u"01-02-20  03:04PM  512  "_s, u"file  512 -"_s);
    row("text in front", u" 01-02-20  03:04PM  512 a"_s);
    row("Unix form", u"-rw-r--r-- 1 kim web 512 Jan 2 2020 a.txt"_s);
    row("empty", QString());
}

void TestFtpParsers::dosLines()
{
    QFETCH(const QString, line);
    QFETCH(const QString, entry);
    FtpEntry parsed;
    QCOMPARE(FtpClient::parseDosLine(line, &parsed), !entry.isEmpty());
    if (!entry.isEmpty())
        QCOMPARE(describe(parsed), entry);
}

void TestFtpParsers::listLines_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QStringList>("entries");
    const auto row = [](const char *what, const QByteArray &data, const QStringList &entries = {}) {
        QTest::newRow(what) << data << entries;
    };

    row("sum of blocks", "total 12\r\n");
    row("sum of blocks with a capital", "Total 12\r\n");
    row("total alone", "total\r\n");
    row("dots", "drwxr-xr-x 3 kim web 4096 Jan 2 2020 .\r\ndrwxr-xr-x 3 kim web 4096 Jan 2 2020 ..\r\n");
    row("dots in the DOS form", "01-02-20 03:04AM <DIR> .\r\n01-02-20 03:04AM <DIR> ..\r\n");
    row("dot as a file", "-rw-r--r-- 1 kim web 5 Jan 2 2020 .\r\n");
    row("name of blanks", "-rw-r--r-- 1 kim web 5 Jan 2 2020     \r\n");
    row("link from a dot", "lrwxrwxrwx 1 kim web 5 Jan 2 2020 . -> x\r\n");
    row("link from two dots and a blank", "lrwxrwxrwx 1 kim web 5 Jan 2 2020 ..  -> x\r\n");
    row("file named total", "-rw-r--r-- 1 kim web 5 Jan 2 2020 total 12\r\n", {u"file total 12 5 -"_s});
    row("a word from the server", "Permission denied\r\n");
    row("MLSD form", "type=file;size=5; a\r\n");
    row("both forms", "01-02-20 03:04AM 7 dos.txt\r\n-rw-r--r-- 1 kim web 5 Jan 2 2020 unix.txt\r\n",
        {u"file dos.txt 7 -"_s, u"file unix.txt 5 -"_s});
    row("a whole listing",
        "total 8\r\n"
        "drwxr-xr-x 3 kim web 4096 Jan 2 2020 .\r\n"
        "drwxr-xr-x 3 kim web 4096 Jan 2 2020 ..\r\n"
        "-rw-r--r-- 1 kim web 5 Jan 2 2020 z\r\n"
        "crw-r--r-- 1 kim web 4, 64 Jan 2 2020 tty\r\n"
        "lrwxrwxrwx 1 kim web 1 Jan 2 2020 m -> z\r\n"
        "drwxr-xr-x 3 kim web 4096 Jan 2 2020 a\r\n",
        {u"file z 5 -"_s, u"link m 1 -"_s, u"dir a 4096 -"_s});
    row("link and file do not colour each other",
        "lrwxrwxrwx 1 kim web 1 Jan 2 2020 m -> z\r\n-rw-r--r-- 1 kim web 5 Jan 2 2020 n\r\n",
        {u"link m 1 -"_s, u"file n 5 -"_s});
    row("not UTF-8", "-rw-r--r-- 1 kim web 5 Jan 2 2020 caf\xE9\r\n", {u"file caf\uFFFD 5 -"_s});
    row("carriage return twice", "-rw-r--r-- 1 kim web 5 Jan 2 2020 a\r\r\n", {u"file a 5 -"_s});
}

void TestFtpParsers::listLines()
{
    QFETCH(const QByteArray, data);
    QFETCH(const QStringList, entries);
    QCOMPARE(describe(FtpClient::parseList(data)), entries);
}

void TestFtpParsers::listingsAreSplitIntoLines_data()
{
    QTest::addColumn<QByteArray>("end");
    QTest::addColumn<QByteArray>("lastEnd");
    QTest::newRow("carriage return and line feed") << QByteArray("\r\n") << QByteArray("\r\n");
    QTest::newRow("line feed") << QByteArray("\n") << QByteArray("\n");
    QTest::newRow("no end behind the last") << QByteArray("\r\n") << QByteArray();
    QTest::newRow("empty lines") << QByteArray("\r\n\r\n\n\n") << QByteArray("\n\n");
    QTest::newRow("carriage return twice") << QByteArray("\r\r\n") << QByteArray("\r\r\n");
}

void TestFtpParsers::listingsAreSplitIntoLines()
{
    QFETCH(const QByteArray, end);
    QFETCH(const QByteArray, lastEnd);
    const QStringList expected = {u"file z 1 -"_s, u"dir a -1 -"_s, u"file m 3 -"_s};
    QCOMPARE(describe(FtpClient::parseMlsd("size=1; z" + end + "type=dir; a" + end + "size=3; m" + lastEnd)),
             expected);
    const QByteArray date = "01-02-20 03:04AM ";
    QCOMPARE(
        describe(FtpClient::parseList(date + "1 z" + end + date + "<DIR> a" + end + date + "3 m" + lastEnd)),
        expected);
    QVERIFY(FtpClient::parseMlsd(end).isEmpty());
    QVERIFY(FtpClient::parseList(end).isEmpty());
    QVERIFY(FtpClient::parseMlsd({}).isEmpty());
    QVERIFY(FtpClient::parseList({}).isEmpty());

    // A byte order mark is one in front of the listing alone.
    const QByteArray mark = "\xEF\xBB\xBF";
    QCOMPARE(describe(FtpClient::parseMlsd(mark + "type=dir; a" + end + mark + "type=dir; b" + lastEnd)),
             QStringList({u"dir a -1 -"_s, u"file b -1 -"_s}));
    QCOMPARE(describe(FtpClient::parseList(mark + date + "1 z" + end + mark + date + "2 a" + lastEnd)),
             QStringList({u"file z 1 -"_s}));
}

void TestFtpParsers::timevals_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("time"); // empty: invalid
    const auto row = [](const char *what, const QString &text, const QString &time = QString()) {
        QTest::newRow(what) << text << time;
    };

    row("digits", u"20200102030405"_s, u"2020-01-02T03:04:05Z"_s);
    row("fraction", u"20200102030405.999"_s, u"2020-01-02T03:04:05Z"_s);
    row("anything behind the digits", u"20200102030405 and on"_s, u"2020-01-02T03:04:05Z"_s);
    row("more digits", u"202001020304059"_s, u"2020-01-02T03:04:05Z"_s);
    row("first instant of a day", u"20200102000000"_s, u"2020-01-02T00:00:00Z"_s);
    row("last second of a year", u"19991231235959"_s, u"1999-12-31T23:59:59Z"_s);
    row("leap day", u"20200229120000"_s, u"2020-02-29T12:00:00Z"_s);
    row("before 1970", u"19690720201740"_s, u"1969-07-20T20:17:40Z"_s);
    row("beyond 32 bits of seconds", u"20400101000000"_s, u"2040-01-01T00:00:00Z"_s);
    row("13 digits", u"2020010203040"_s);
    row("date alone", u"20200102"_s);
    row("empty", QString());
    row("no leap year", u"20190229120000"_s);
    row("month 0", u"20200002030405"_s);
    row("month 13", u"20201302030405"_s);
    row("day 0", u"20200100030405"_s);
    row("day 31 of a short month", u"20200431030405"_s);
    row("hour 24", u"20200102240000"_s);
    row("minute 60", u"20200102036000"_s);
    row("second 60", u"20161231235960"_s);
    row("letter", u"2020010203040x"_s);
    row("fraction too early", u"2020010203.040"_s);
    row("words", u"file not found"_s);
    row("sign", u"+2020102030405"_s);
    row("year 0", u"00000102030405"_s);
}

void TestFtpParsers::timevals()
{
    QFETCH(const QString, text);
    QFETCH(const QString, time);
    const QDateTime parsed = FtpClient::parseTimeval(text);
    QCOMPARE(parsed.isValid(), !time.isEmpty());
    if (!time.isEmpty())
        QCOMPARE(parsed.toString(Qt::ISODate), time);
}

void TestFtpParsers::timevalsAreUtcInEveryZone_data()
{
    QTest::addColumn<QByteArray>("zone");
    QTest::addColumn<int>("winterOffset"); // seconds, on 15 January 2021
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("time");
    const struct
    {
        const char *zone;
        int winterOffset;
    } zones[] = {
        {"UTC", 0}, {"Europe/Berlin", 3600}, {"America/New_York", -18000}, {"Australia/Lord_Howe", 39600}};
    const struct
    {
        const char *what;
        QString text;
        QString time;
    } times[] = {
        {"gap of Berlin", u"20210328023000"_s, u"2021-03-28T02:30:00Z"_s},
        {"first of the gap of Berlin", u"20210328020000"_s, u"2021-03-28T02:00:00Z"_s},
        {"gap of New York", u"20210314023000"_s, u"2021-03-14T02:30:00Z"_s},
        {"last of the gap of New York", u"20210314025959"_s, u"2021-03-14T02:59:59Z"_s},
        {"gap of Lord Howe", u"20211003021500"_s, u"2021-10-03T02:15:00Z"_s},
        {"repeated hour of Berlin", u"20211031023000"_s, u"2021-10-31T02:30:00Z"_s},
        {"repeated hour of New York", u"20211107013000"_s, u"2021-11-07T01:30:00Z"_s},
        {"repeated half hour of Lord Howe", u"20210404014500"_s, u"2021-04-04T01:45:00Z"_s},
        {"summer", u"20210701120000"_s, u"2021-07-01T12:00:00Z"_s},
        {"winter", u"20210115120000"_s, u"2021-01-15T12:00:00Z"_s},
    };
    for (const auto &zone : zones) {
        for (const auto &time : times)
            QTest::addRow("%s: %s", zone.zone, time.what)
                << QByteArray(zone.zone) << zone.winterOffset << time.text << time.time;
    }
}

void TestFtpParsers::timevalsAreUtcInEveryZone()
{
    QFETCH(const QByteArray, zone);
    QFETCH(const int, winterOffset);
    QFETCH(const QString, text);
    QFETCH(const QString, time);
    const LocalZone inForce(zone);
    const int offset = QDateTime(QDate(2021, 1, 15), QTime(12, 0)).offsetFromUtc();
    const QDateTime parsed = FtpClient::parseTimeval(text);
    const QList<FtpEntry> entries = FtpClient::parseMlsd("modify=" + text.toLatin1() + "; a");

    QCOMPARE(offset, winterOffset); // or the zone was not in force, and nothing has been tested
    QVERIFY(parsed.isValid());
    QCOMPARE(parsed.timeSpec(), Qt::UTC);
    QCOMPARE(parsed.toString(Qt::ISODate), time);
    QCOMPARE(describe(entries), QStringList(u"file a -1 "_s + time));
}

QTEST_GUILESS_MAIN(TestFtpParsers)
#include "tst_FtpParsers.moc"
