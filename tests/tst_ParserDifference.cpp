// Makes lines up, most of them almost right, and compares what the parsers make of them with what those
// do that are made of regular expressions. The lines are the same in every run; there are more of them
// with KELPWHARF_DIFFERENCE_LINES=10000000.

#include "ReferenceParsers.h"

#include <QRandomGenerator>
#include <QTest>

#include <algorithm>
#include <iterator>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kUsualLines = 100'000;
constexpr int kLinesPerListing = 20;

qint64 lineCount()
{
    bool isSet = false;
    const qint64 wanted = qEnvironmentVariable("KELPWHARF_DIFFERENCE_LINES").toLongLong(&isSet);
    return isSet ? wanted : kUsualLines;
}

// What is put into lines that were right.
const QByteArray kBlanks[] = {
    " ",
    "  ",
    "\t",
    "\v",
    "\f",
    "\r",
    "\r\r",
    "\x1C",
    "\x1F",
    "\x08",
    "\xC2\x85",
    "\xC2\xA0",
    "\xE1\x9A\x80",
    "\xE2\x80\x83",
    "\xE2\x80\xA8",
    "\xE2\x80\xA9",
    "\xE2\x80\x8B",
    "\xE3\x80\x80",
};
const QByteArray kDigits[] = {
    "0",
    "1",
    "9",
    "12",
    "007",
    "2024",
    "20240229120000",
    "\xD9\xA1" /* Arabic */,
    "\xEF\xBC\x91" /* wide */,
    "\xC2\xB2",
    "\xF0\x9D\x9F\x8F",
    "-1",
    "+5",
    "0x10",
    "1,000",
    "\xE2\x88\x92"
    "5",
    "999999999999999999",
    "1000000000000000000",
    "9223372036854775807",
    "9223372036854775808",
    "18446744073709551617",
    "000000000000000000000042",
};
const QByteArray kLetters[] = {
    "a",
    "Z",
    "k",
    "\xE2\x84\xAA" /* Kelvin */,
    "\xC5\xBF" /* long s */,
    "\xC4\xB0" /* dotted I */,
    "\xC3\xA9",
    "\xC3\x85",
    "\xE2\x84\xAB" /* Angstrom */,
    "\xF0\x9F\x90\x9A",
    "\xF0\x90\x90\x80",
    "e\xCC\x81",
};
const QByteArray kBytes[] = {
    QByteArray(1, '\0'),
    "\n",
    "\xEF\xBB\xBF",
    "\xEF\xBF\xBE",
    "\xE2",
    "\xE2\x82",
    "\xF0\x9F\x90",
    "\xC0\x8A",
    "\xED\xA0\x80",
    "\xF4\x90\x80\x80",
    "\x80",
    "\xFF",
    "\xC2",
};
const QByteArray kSigns[] = {
    ";",    "=",  ":",     "-",     ".",      "..",     "+",  "@",  "/",
    " -> ", "->", "<DIR>", "<dir>", "total ", "Total ", "am", "Pm",
};

/** Makes the same texts in every run. */
class Maker
{
public:
    /** From 0 to one below `end`. */
    int below(int end) { return random.bounded(end); }
    bool oneIn(int count) { return below(count) == 0; }

    template <std::size_t count>
    const QByteArray &oneOf(const QByteArray (&choices)[count])
    {
        return choices[below(int(count))];
    }

    QByteArray oneOf(std::initializer_list<const char *> choices)
    {
        return choices.begin()[below(int(choices.size()))];
    }

    QByteArray digits(int count)
    {
        QByteArray text;
        for (int i = 0; i < count; ++i)
            text += char('0' + below(10));
        return text;
    }

    QByteArray number() { return oneIn(20) ? oneOf(kDigits) : digits(1 + below(10)); }

    QByteArray blanks()
    {
        return oneIn(25) ? oneOf(kBlanks) + oneOf({"", " "}) : QByteArray(1 + below(3), ' ');
    }

    QByteArray word()
    {
        QByteArray text;
        for (int length = 1 + below(6); length > 0; --length)
            text += oneIn(6) ? oneOf(kLetters) : QByteArray(1, char('a' + below(26)));
        return text;
    }

    QByteArray name()
    {
        QByteArray text = oneIn(12) ? oneOf({"", ".", "..", "...", " "}) : word();
        while (oneIn(3))
            text += (oneIn(2) ? oneOf(kSigns) : blanks()) + word();
        return text;
    }

    QByteArray timeval()
    {
        QByteArray text = oneIn(4) ? digits(14)
                                   : oneOf({"1969", "1970", "2000", "2023", "2024", "9999", "0001", "0000"}) +
                                         oneOf({"01", "02", "06", "11", "12", "13", "00"}) +
                                         oneOf({"01", "11", "28", "29", "30", "31", "00"}) +
                                         oneOf({"00", "02", "13", "23", "24"}) +
                                         oneOf({"00", "07", "30", "59", "60"}) +
                                         oneOf({"00", "07", "30", "59", "60"});
        if (oneIn(4))
            text += oneOf({".123", "Z", " ", "0", "."});
        return text;
    }

    QByteArray mlsdLine()
    {
        QByteArray line;
        for (int facts = below(6); facts > 0; --facts)
            line += fact() + oneOf({";", ";", ";", ";", ";;", ""});
        return line + (oneIn(10) ? blanks() : QByteArray(" ")) + name();
    }

    QByteArray listLine()
    {
        if (oneIn(20))
            return "total " + number();
        return oneIn(3) ? dosLine() : unixLine();
    }

    /** Changes a text in a few places, or in none. */
    QByteArray spoilt(QByteArray text)
    {
        for (int changes = below(4) - 1; changes > 0; --changes) {
            const int at = below(int(text.size()) + 1);
            const int length = oneIn(3) ? 1 + below(4) : oneIn(2);
            text.replace(at, length, oneIn(5) ? QByteArray() : piece());
            if (oneIn(12))
                text.truncate(at);
        }
        return text;
    }

private:
    QByteArray piece()
    {
        switch (below(6)) {
        case 0:
            return oneOf(kBlanks);
        case 1:
            return oneOf(kDigits);
        case 2:
            return oneOf(kLetters);
        case 3:
            return oneOf(kBytes);
        case 4:
            return oneOf(kSigns);
        default:
            return QByteArray(1, char(below(256)));
        }
    }

    QByteArray fact()
    {
        const QByteArray around = oneIn(12) ? oneOf(kBlanks) : QByteArray();
        switch (below(5)) {
        case 0:
            return around + oneOf({"type", "Type", "TYPE", "t\xC4\xB0pe"}) + '=' + around + type();
        case 1:
            return oneOf({"size", "Size",
                          "\xC5\xBF"
                          "ize",
                          "s\xC4\xB0ze"}) +
                   around + '=' + number() + around;
        case 2:
            return oneOf({"modify", "Modify", "MODIFY",
                          "mod\xC4\xB0"
                          "fy"}) +
                   '=' + around + timeval();
        case 3:
            return oneOf({"perm", "UNIX.mode", "unique", "", "sizd", "types"}) + oneOf({"=", "", "=="}) +
                   number();
        default:
            return word() + '=' + word();
        }
    }

    QByteArray type()
    {
        return oneOf({"file", "dir", "DIR", "Dir", "d\xC4\xB0r", "cdir", "pdir", "PDir", "OS.unix=slink:/x",
                      "OS.UNIX=SLINK", "os.unix=slin\xE2\x84\xAA", "os.unix=slin", "OS.unix=symlink", ""});
    }

    QByteArray clock() { return digits(1 + below(2)) + ':' + digits(oneIn(20) ? 3 : 2); }

    QByteArray unixLine()
    {
        QByteArray line = oneOf({"-", "-", "d", "d", "l", "l", "c"});
        for (int i = oneIn(30) ? 1 : 0; i < 9; ++i)
            line += "rwxstST-"[below(8)];
        line += oneOf({"", "", "", "", "", "", ".", "+", "@", "!"}) + blanks() + number();
        for (int owners = oneIn(10) ? below(4) : 1 + below(2); owners > 0; --owners)
            line += blanks() + (oneIn(4) ? number() : word());
        line += blanks() + number() + blanks() +
                oneOf({"Jan", "Feb", "Dec", "M\xC3\xA4r", "Sept", "123",
                       "\xF0\x9F\x90\x9A"
                       "ab"});
        line += blanks() + digits(oneIn(20) ? 3 : 1 + below(2)) + blanks();
        return line + (oneIn(2) ? clock() : digits(oneIn(20) ? 5 : 4)) + blanks() + name();
    }

    QByteArray dosLine()
    {
        const QByteArray date = digits(2) + '-' + digits(2) + '-' + digits(oneIn(20) ? 5 : 2 + below(3));
        const QByteArray halfDay =
            oneOf({"", " ", "\t", "  "}) + oneOf({"AM", "PM", "am", "aM", "PM", "pm", "p", "xm"});
        return date + blanks() + clock() + halfDay + blanks() + (oneIn(3) ? QByteArray("<DIR>") : number()) +
               blanks() + name();
    }

    QRandomGenerator random{20260317};
};

bool areSame(const QList<FtpEntry> &a, const QList<FtpEntry> &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const FtpEntry &x, const FtpEntry &y) { return reference::isSame(x, y); });
}

QByteArray printable(const QString &text)
{
    return QByteArray(reinterpret_cast<const char *>(text.utf16()), text.size() * 2).toHex(' ');
}

using ListingParser = QList<FtpEntry> (*)(const QByteArray &);
using LineParser = bool (*)(const QString &, FtpEntry *);

} // namespace

class TestParserDifference : public QObject
{
    Q_OBJECT

private slots:
    void listingsAreReadAlike_data();
    void listingsAreReadAlike();
    void linesAreReadAlike_data();
    void linesAreReadAlike();
    void timevalsAreReadAlike();
};

void TestParserDifference::listingsAreReadAlike_data()
{
    QTest::addColumn<bool>("isMlsd");
    QTest::newRow("MLSD") << true;
    QTest::newRow("LIST") << false;
}

void TestParserDifference::listingsAreReadAlike()
{
    QFETCH(const bool, isMlsd);
    const ListingParser parse = isMlsd ? FtpClient::parseMlsd : FtpClient::parseList;
    const ListingParser parseReference = isMlsd ? reference::parseMlsd : reference::parseList;
    Maker maker;
    qint64 entries = 0;
    const qint64 lines = lineCount();
    for (qint64 made = 0; made < lines; made += kLinesPerListing) {
        QByteArray listing = maker.oneIn(10) ? QByteArray("\xEF\xBB\xBF") : QByteArray();
        for (int i = 0; i < kLinesPerListing; ++i)
            listing += maker.spoilt(isMlsd ? maker.mlsdLine() : maker.listLine()) +
                       maker.oneOf({"\n", "\r\n", "\r\n", "\r\n", "\r\r\n", "\n\n"});
        if (maker.oneIn(3))
            listing.chop(1 + maker.below(2));
        const QList<FtpEntry> expected = parseReference(listing);
        QVERIFY2(areSame(parse(listing), expected), listing.toPercentEncoding(" -:;=><+@/\n"));
        entries += expected.size();
    }
    QVERIFY(entries > lines / 4); // or what was compared were empty lists
    qInfo("%lld lines, %lld entries", lines, entries);
}

void TestParserDifference::linesAreReadAlike_data()
{
    QTest::addColumn<bool>("isUnix");
    QTest::newRow("Unix") << true;
    QTest::newRow("DOS") << false;
}

void TestParserDifference::linesAreReadAlike()
{
    QFETCH(const bool, isUnix);
    const LineParser parse = isUnix ? FtpClient::parseUnixLine : FtpClient::parseDosLine;
    const LineParser parseReference = isUnix ? reference::parseUnixLine : reference::parseDosLine;
    const char16_t oddUnits[] = {u'\n', u'\r', 0, u'\xD83D', u'\xDC1A', u'\xFEFF', u'\x2028', u' '};
    Maker maker;
    qint64 accepted = 0;
    const qint64 lines = lineCount();
    for (qint64 made = 0; made < lines; ++made) {
        QString line = QString::fromUtf8(maker.spoilt(maker.listLine()));
        while (maker.oneIn(4)) // what no decoder leaves within a line
            line.insert(maker.oneIn(2) ? int(line.size()) : maker.below(int(line.size()) + 1),
                        QChar(oddUnits[maker.below(int(std::size(oddUnits)))]));
        FtpEntry entry;
        FtpEntry expected;
        const bool isAccepted = parseReference(line, &expected);
        QVERIFY2(parse(line, &entry) == isAccepted && reference::isSame(entry, expected), printable(line));
        accepted += isAccepted ? 1 : 0;
    }
    QVERIFY(accepted > lines / 20);
    qInfo("%lld lines, %lld of the form", lines, accepted);
}

void TestParserDifference::timevalsAreReadAlike()
{
    Maker maker;
    qint64 valid = 0;
    const qint64 lines = lineCount();
    for (qint64 made = 0; made < lines; ++made) {
        const QString text = QString::fromUtf8(maker.spoilt(maker.timeval()));
        const QDateTime expected = reference::parseTimeval(text);
        QVERIFY2(reference::isSame(FtpClient::parseTimeval(text), expected), printable(text));
        valid += expected.isValid() ? 1 : 0;
    }
    QVERIFY(valid > lines / 20);
    qInfo("%lld texts, %lld times", lines, valid);
}

QTEST_APPLESS_MAIN(TestParserDifference)

#include "tst_ParserDifference.moc"
