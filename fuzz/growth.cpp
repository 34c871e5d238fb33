// Times each parser on inputs that might take it long, once short and once four times as long, and
// fails if the time grows faster than the length.
#include "Check.h"

#include "ftp/FtpClient.h"
#include "model/SettingsStore.h"
#include "model/SyncJob.h"
#include "update/ForeignText.h"
#include "update/UpdateChecker.h"

#include <QElapsedTimer>

#include <algorithm>
#include <functional>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kShort = 1 << 20;
constexpr int kTimesAsLong = 4;
constexpr double kMostTimesSlower = 9; ///< linear is 4, square is 16; machines are noisy
constexpr int kAttempts = 3;
constexpr qint64 kNoticedNs = 20'000'000;

struct Suspect
{
    const char *name;
    std::function<QByteArray(qsizetype length)> input;
    std::function<void(const QByteArray &)> parse;
};

/** `unit` again and again between `head` and `tail`. */
std::function<QByteArray(qsizetype)> filled(const QByteArray &head, const QByteArray &unit,
                                            const QByteArray &tail = {})
{
    return [=](qsizetype length) { return head + unit.repeated(length / unit.size()) + tail; };
}

void list(const QByteArray &bytes) { FtpClient::parseList(bytes); }
void mlsd(const QByteArray &bytes) { FtpClient::parseMlsd(bytes); }
void rule(const QByteArray &bytes) { ScheduleRule::fromStorage(QString::fromUtf8(bytes)).label(); }
void settings(const QByteArray &bytes) { withoutUnsafeLines(bytes); }
void timeval(const QByteArray &bytes) { FtpClient::parseTimeval(QString::fromUtf8(bytes)); }

void update(const QByteArray &bytes)
{
    UpdateInfo info;
    QString reason;
    UpdateChecker::readAnswer(bytes, &info, &reason);
    oneLine(info.notes);
}

void versions(const QByteArray &bytes)
{
    const QString version = QString::fromUtf8(bytes);
    UpdateChecker::compareVersions(version, version + u".1"_s);
}

const Suspect kSuspects[] = {
    {"list: blanks behind the rights", filled("drwxr-xr-x ", " "), list},
    {"list: links", filled("drwxr-xr-x ", "1", " a b 1 Jan 1 2020 x"), list},
    {"list: owner", filled("drwxr-xr-x 1 ", "a"), list},
    {"list: blanks behind the owner", filled("drwxr-xr-x 1 a", " ", "b"), list},
    {"list: digits everywhere", filled("drwxr-xr-x 1 ", "1 "), list},
    {"list: numbers of digits", filled("drwxr-xr-x 1 1 ", "1", "x"), list},
    {"list: size", filled("-rw-r--r-- 1 a b ", "9", " Jan 1 2020 x"), list},
    {"list: blanks in front of the date", filled("-rw-r--r-- 1 a b 1", " ", "Jan"), list},
    {"list: blanks within the date", filled("-rw-r--r-- 1 a b 1 Jan", " ", "x"), list},
    {"list: blanks in front of the name", filled("-rw-r--r-- 1 a b 1 Jan 1 2020 ", " "), list},
    {"list: blanks and a carriage return", filled("-rw-r--r-- 1 a b 1 Jan 1 2020 ", " ", "a\rb"), list},
    {"list: blanks and a line separator",
     filled("-rw-r--r-- 1 a b 1 Jan 1 2020 ", " ",
            "a\xE2\x80\xA8"
            "b"),
     list},
    {"list: carriage returns", filled("-rw-r--r-- 1 a b 1 Jan 1 2020 ", "\r"), list},
    {"list: arrows", filled("lrwxrwxrwx 1 a b 1 Jan 1 2020 x", " ->"), list},
    {"list: blanks of a DOS line", filled("01-01-20 ", " ", "x"), list},
    {"list: blanks in front of AM", filled("01-01-20 1:00", " ", "x"), list},
    {"list: size of a DOS line", filled("01-01-20 1:00AM ", "9", "x"), list},
    {"list: blanks in front of a DOS name", filled("01-01-20 1:00AM 1 ", " "), list},
    {"list: empty lines", filled("", "\n"), list},
    {"list: short lines", filled("", "-rw-r--r-- 1 a b 1 Jan 1 2020 x\n"), list},
    {"list: almost lines", filled("", "-rw-r--r-- 1 a b 1 Jan 1 2020\n"), list},
    {"mlsd: size", filled("size=", "9", "; x"), mlsd},
    {"mlsd: zeros", filled("size=", "0", "1; x"), mlsd},
    {"mlsd: facts", filled("", "size=1;", " x"), mlsd},
    {"mlsd: empty facts", filled("", ";", " x"), mlsd},
    {"mlsd: type", filled("type=", "OS.unix=slink", "; x"), mlsd},
    {"mlsd: name", filled("type=file; ", "x "), mlsd},
    {"mlsd: lines", filled("", "type=file; x\r\n"), mlsd},
    {"mlsd: broken UTF-8", filled("type=file; ", "\xE2"), mlsd},
    {"time: digits", filled("20200101000000.", "1"), timeval},
    {"rule: minutes", filled("1:1:", "5+"), rule},
    {"rule: one long minute", filled("1:1:", "5"), rule},
    {"rule: one long mask", filled("", "5", ":1:1"), rule},
    {"rule: colons", filled("", ":"), rule},
    {"update: notes", filled("{\"latest_version\":\"1\",\"notes\":\"", "x\\u202e", "\"}"), update},
    {"update: keys", filled("{\"latest_version\":\"1\"", ",\"k\":1", "}"), update},
    {"update: brackets", filled("{\"latest_version\":", "["), update},
    {"update: number", filled("{\"latest_version\":\"1\",\"notes\":", "9", "}"), update},
    {"versions: digits", filled("", "9"), versions},
    {"versions: dots", filled("", "."), versions},
    {"versions: parts", filled("", "1."), versions},
    {"settings: quotes", filled("a=", "\""), settings},
    {"settings: backslashes", filled("a=", "\\"), settings},
    {"settings: commas", filled("a=", "@,"), settings},
    {"settings: one value", filled("a=@DateTime(", "\\0"), settings},
    {"settings: unsafe lines", filled("", "a=@Variant(x)\n"), settings},
    {"settings: one long number", filled("a=\\x", "0"), settings},
    {"settings: quotes that stay open", filled("", "a=\"@Variant(x)\n"), settings},
    {"settings: one quote that stays open", filled("a=\"@Variant(x)\n", "a=@Variant(x)\n"), settings},
    {"settings: lines that go on", filled("", "a=@Variant(x)\\\n"), settings},
};

/** The best of some rounds, since others use the machine too. */
qint64 nanosecondsOf(const Suspect &suspect, qsizetype length)
{
    const QByteArray input = suspect.input(length);
    qint64 best = std::numeric_limits<qint64>::max();
    for (int round = 0; round < 3; ++round) {
        QElapsedTimer timer;
        timer.start();
        suspect.parse(input);
        best = std::min(best, timer.nsecsElapsed());
    }
    return best;
}

} // namespace

int main()
{
    int traps = 0;
    for (const Suspect &suspect : kSuspects) {
        qint64 few = 0;
        qint64 many = 0;
        double factor = 0;
        bool isTrap = true; // a real one shows every time, a busy machine only now and then
        for (int attempt = 0; attempt < kAttempts && isTrap; ++attempt) {
            few = nanosecondsOf(suspect, kShort);
            many = nanosecondsOf(suspect, kShort * kTimesAsLong);
            factor = static_cast<double>(many) / static_cast<double>(std::max<qint64>(few, 1));
            isTrap = many > kNoticedNs && factor > kMostTimesSlower;
        }
        traps += isTrap ? 1 : 0;
        std::printf("%-45s %8.1f ms %8.1f ms  x%.1f%s\n", suspect.name, static_cast<double>(few) / 1e6,
                    static_cast<double>(many) / 1e6, factor, isTrap ? "  TRAP" : "");
        std::fflush(stdout);
    }
    return traps > 0 ? 1 : 0;
}
