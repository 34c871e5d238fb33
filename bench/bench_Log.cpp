#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QApplication>

#include <benchmark/benchmark.h>

using namespace Qt::StringLiterals;

namespace {

/** A line more in the log. Argument: how many there are already, 5000 being all that it holds. */
void appendLog(benchmark::State &state)
{
    TestWindow window;
    window.show();
    const QString line = u"Downloading /archive/2026/03/recording-0317.flac (newer on server)"_s;
    for (int i = 0; i < state.range(0); ++i)
        window.sayFromWorker(line, 0);
    QCoreApplication::processEvents();
    for ([[maybe_unused]] const auto &step : state)
        window.sayFromWorker(line, 0);
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * line.size());
}

} // namespace

BENCHMARK(appendLog)->Unit(benchmark::kMicrosecond)->ArgName("lines")->Arg(0)->Arg(5000)->Iterations(5000);

int main(int argc, char *argv[])
{
    // No display is needed, and the user's settings stay out of it.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    const TestSettings settings;
    const QApplication application(argc, argv);
    TestWindow::setIdentity();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
