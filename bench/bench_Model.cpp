#include "mirror/MirrorWorker.h"
#include "model/SyncJob.h"
#include "support/FtpTreeServer.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <numeric>

using namespace Qt::StringLiterals;

namespace {

constexpr int kEntries = 20'000;

/** The worker's walk over links, which it only names, past so many patterns that match none of them. */
void isExcluded(benchmark::State &state)
{
    RemoteTree tree;
    for (int i = 0; i < kEntries; ++i)
        tree["/"] += remoteLink("recording-" + QByteArray::number(i).rightJustified(7, '0') + ".flac");
    const FtpTreeServer server(tree);
    const QTemporaryDir local;
    MirrorConfig config;
    config.host = u"127.0.0.1"_s;
    config.port = server.port();
    config.localDir = local.path();
    for (int i = 0; i < state.range(0); ++i)
        config.excludes += u"*.tmp%1"_s.arg(i);
    MirrorWorker worker;
    QObject::connect(&worker, &MirrorWorker::finished, &worker, [&state](const MirrorResult &result) {
        if (!result.success)
            state.SkipWithError("the run failed");
    });
    for ([[maybe_unused]] const auto &step : state)
        worker.runSync(config);
    state.SetItemsProcessed(state.iterations() * kEntries);
}

QList<int> everyMinute()
{
    QList<int> minutes(60);
    std::iota(minutes.begin(), minutes.end(), 0);
    return minutes;
}

void nextAfter(benchmark::State &state, const ScheduleRule &rule)
{
    const QDateTime lateInTheDay(QDate(2026, 3, 17), QTime(23, 50));
    for ([[maybe_unused]] const auto &step : state)
        benchmark::DoNotOptimize(rule.nextAfter(lateInTheDay));
    state.SetItemsProcessed(state.iterations());
}

AppSettings manyJobs(qint64 count)
{
    AppSettings settings;
    for (qint64 i = 0; i < count; ++i) {
        SyncJob job;
        job.name = u"Job %1"_s.arg(i);
        job.config.host = u"ftp%1.example.org"_s.arg(i);
        job.config.user = u"kim"_s;
        job.config.password = u"correct horse"_s;
        job.config.remoteDir = u"/archive/%1"_s.arg(i);
        job.config.localDir = u"/home/kim/archive/%1"_s.arg(i);
        job.config.excludes = {u"*.tmp"_s, u"*.bak"_s};
        job.scheduleMode = Rules;
        job.rules = {ScheduleRule(), ScheduleRule()};
        job.lastRun = QDateTime(QDate(2026, 3, 17), QTime(14, 40));
        job.lastSummary = u"12 new, 345 unchanged"_s;
        settings.jobs += job;
    }
    return settings;
}

void saveSettings(benchmark::State &state)
{
    const AppSettings settings = manyJobs(state.range(0));
    for ([[maybe_unused]] const auto &step : state)
        settings.save();
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void loadSettings(benchmark::State &state)
{
    manyJobs(state.range(0)).save();
    for ([[maybe_unused]] const auto &step : state) {
        AppSettings settings;
        settings.load();
        if (settings.jobs.size() != state.range(0))
            state.SkipWithError("jobs were lost");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

const ScheduleRule kEveryMinute{.minutes = everyMinute()};
const ScheduleRule kOnceAWeek{.days = 1, .hours = 1};

} // namespace

BENCHMARK(isExcluded)->Unit(benchmark::kMillisecond)->ArgName("patterns")->Arg(0)->Arg(1)->Arg(10);
BENCHMARK_CAPTURE(nextAfter, every_minute, kEveryMinute)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(nextAfter, every_hour, ScheduleRule())->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(nextAfter, once_a_week, kOnceAWeek)->Unit(benchmark::kMicrosecond);
BENCHMARK(saveSettings)->Unit(benchmark::kMillisecond)->ArgName("jobs")->Arg(1000);
BENCHMARK(loadSettings)->Unit(benchmark::kMillisecond)->ArgName("jobs")->Arg(1000);

int main(int argc, char *argv[])
{
    const TestSettings settings; // the user's stay out of it
    const QCoreApplication application(argc, argv);
    TestWindow::setIdentity();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
