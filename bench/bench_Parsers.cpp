#include "ftp/FtpClient.h"
#include "ReferenceParsers.h"

#include <benchmark/benchmark.h>

using namespace Qt::StringLiterals;

namespace {

QByteArray fileName(qint64 line)
{
    return "recording-" + QByteArray::number(line).rightJustified(7, '0') + ".flac";
}

QByteArray timeOf(qint64 line)
{
    return QDateTime::fromSecsSinceEpoch(1'600'000'000 + line * 61, Qt::UTC)
        .toString(u"yyyyMMddHHmmss"_s)
        .toLatin1();
}

QByteArray mlsdLine(qint64 line)
{
    return "modify=" + timeOf(line) + ";perm=adfr;size=" + QByteArray::number(line * 977) +
           ";type=file;unique=801g" + QByteArray::number(line, 16) + ";UNIX.mode=0644; " + fileName(line);
}

QByteArray unixLine(qint64 line)
{
    return "-rw-r--r--    1 kim      web      " + QByteArray::number(line * 977).rightJustified(12) +
           " Jan 29 23:32 " + fileName(line);
}

QByteArray dosLine(qint64 line)
{
    return "01-29-24  11:32PM " + QByteArray::number(line * 977).rightJustified(20) + ' ' + fileName(line);
}

void parseListing(benchmark::State &state, QByteArray (*makeLine)(qint64),
                  QList<FtpEntry> (*parse)(const QByteArray &))
{
    QByteArray listing;
    for (qint64 line = 0; line < state.range(0); ++line)
        listing += makeLine(line) + "\r\n";
    for ([[maybe_unused]] const auto &step : state) {
        if (parse(listing).size() != state.range(0))
            state.SkipWithError("lines were lost");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * listing.size());
}

void parseTimes(benchmark::State &state, QDateTime (*parse)(const QString &))
{
    QStringList texts;
    for (qint64 line = 0; line < state.range(0); ++line)
        texts += QString::fromLatin1(timeOf(line));
    for ([[maybe_unused]] const auto &step : state) {
        for (const QString &text : std::as_const(texts)) {
            if (!parse(text).isValid())
                state.SkipWithError("a time was lost");
        }
    }
    state.SetItemsProcessed(state.iterations() * texts.size());
    state.SetBytesProcessed(state.iterations() * texts.size() * texts.first().size());
}

/** Few, many and very many lines: the rate should be the same. */
void lengths(benchmark::internal::Benchmark *bench)
{
    bench->Unit(benchmark::kMillisecond)->ArgName("lines")->Arg(1'000)->Arg(100'000)->Arg(5'000'000);
}

/** The parsers made of regular expressions, to compare with. */
void once(benchmark::internal::Benchmark *bench)
{
    bench->Unit(benchmark::kMillisecond)->ArgName("lines")->Arg(100'000);
}

} // namespace

BENCHMARK_CAPTURE(parseListing, mlsd, mlsdLine, FtpClient::parseMlsd)->Apply(lengths);
BENCHMARK_CAPTURE(parseListing, unix, unixLine, FtpClient::parseList)->Apply(lengths);
BENCHMARK_CAPTURE(parseListing, dos, dosLine, FtpClient::parseList)->Apply(lengths);
BENCHMARK_CAPTURE(parseTimes, timeval, FtpClient::parseTimeval)->Apply(lengths);
BENCHMARK_CAPTURE(parseListing, mlsd_reference, mlsdLine, reference::parseMlsd)->Apply(once);
BENCHMARK_CAPTURE(parseListing, unix_reference, unixLine, reference::parseList)->Apply(once);
BENCHMARK_CAPTURE(parseListing, dos_reference, dosLine, reference::parseList)->Apply(once);
BENCHMARK_CAPTURE(parseTimes, timeval_reference, reference::parseTimeval)->Apply(once);

BENCHMARK_MAIN();
