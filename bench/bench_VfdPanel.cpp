#include "panel/VfdPanel.h"

#include <QApplication>
#include <QImage>

#include <benchmark/benchmark.h>

using namespace Qt::StringLiterals;

namespace {

/** Everything lit that can be: a run in its last seconds, at the end of a busy day. */
void light(VfdPanel &panel)
{
    const QDateTime now = QDateTime::currentDateTime();
    panel.setMode(VfdPanel::Auto);
    panel.setJobName(u"Nightly archive"_s);
    panel.setHost(u"ftp.example.org"_s);
    panel.setNextRun(now.addSecs(3600));
    panel.setRunning(true);
    panel.setLink(VfdPanel::Transferring, u"Transferring"_s);
    panel.setCurrentFile(u"/archive/2026/03/recording-0317.flac"_s);
    panel.setFileProgress(1.0);
    panel.setRate(2e7);
    for (int i = 0; i < 400; ++i)
        panel.addActivityMark(QDateTime(now.date(), QTime(i % 24, i % 2 * 30)));
}

void leaveDark(VfdPanel & /*panel*/) {}

/** Arguments: the width, and the device pixel ratio. */
void paintPanel(benchmark::State &state, void (*prepare)(VfdPanel &))
{
    const auto ratio = int(state.range(1));
    VfdPanel panel;
    prepare(panel);
    panel.resize(int(state.range(0)), panel.sizeHint().height());
    QImage picture(panel.size() * ratio, QImage::Format_ARGB32_Premultiplied);
    picture.setDevicePixelRatio(ratio);
    for ([[maybe_unused]] const auto &step : state)
        panel.render(&picture, QPoint(), QRegion(), QWidget::DrawChildren);
}

void sizes(benchmark::internal::Benchmark *bench)
{
    bench->Unit(benchmark::kMillisecond)->UseRealTime()->ArgNames({"width", "ratio"});
    bench->ArgsProduct({{740, 1200}, {1, 2}});
}

} // namespace

BENCHMARK_CAPTURE(paintPanel, idle, leaveDark)->Apply(sizes);
BENCHMARK_CAPTURE(paintPanel, busy, light)->Apply(sizes);

int main(int argc, char *argv[])
{
    // No display is needed: what is measured paints into a picture.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    const QApplication application(argc, argv);
    VfdPanel::nameFontStandIns();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
