#include "dialogs/ReadableColours.h"

#include <QAbstractItemView>
#include <QLineEdit>
#include <QPalette>

#include <algorithm>
#include <cmath>

namespace {

constexpr double kReadable = 4.5;               ///< contrast that small text wants
constexpr QColor kLinkBlue(0x00, 0x70, 0xC4);   ///< the palest of what stands on the dialogs' ground
constexpr QColor kFailureRed(0xC0, 0x30, 0x20); ///< what went wrong, or cannot go at all
constexpr QColor kLightGround(0xF6, 0xF6, 0xF6);
constexpr int kPlaceholderAlpha = 160;
constexpr int kStepPercent = 110;
constexpr int kMostSteps = 20;

double linear(float part)
{
    const auto value = static_cast<double>(part);
    return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
}

double luminance(const QColor &colour)
{
    return 0.2126 * linear(colour.redF()) + 0.7152 * linear(colour.greenF()) +
           0.0722 * linear(colour.blueF());
}

bool isReadable(const QColor &text, const QColor &ground)
{
    const auto [low, high] = std::minmax({luminance(text), luminance(ground)});
    return (high + 0.05) / (low + 0.05) >= kReadable;
}

/** The colour nearest to the ground's on which the text can be read. */
QColor readableGround(QColor ground, const QColor &text)
{
    const bool isLightText = luminance(text) > luminance(ground);
    for (int step = 0; step < kMostSteps && !isReadable(text, ground); ++step)
        ground = isLightText ? ground.darker(kStepPercent) : ground.lighter(kStepPercent);
    return ground;
}

} // namespace

void ensureLightGround(QWidget *dialog)
{
    QPalette palette = dialog->palette();
    if (isReadable(kLinkBlue, palette.color(QPalette::Window)))
        return;
    if (isReadable(palette.color(QPalette::WindowText), kLightGround))
        palette.setColor(QPalette::Window, kLightGround);
    else
        palette = QPalette(kLightGround);
    dialog->setPalette(palette);
}

void ensureLightRows(QAbstractItemView *view)
{
    view->setPalette(QPalette()); // the desktop's again, whatever an earlier call has set
    const QPalette desktop = view->palette();
    const bool isLight = isReadable(kFailureRed, desktop.color(QPalette::Base)) &&
                         isReadable(kFailureRed, desktop.color(QPalette::AlternateBase));
    QPalette palette = isLight ? desktop : QPalette(kLightGround);
    for (const auto group : {QPalette::Active, QPalette::Inactive}) {
        const QColor text = desktop.color(group, QPalette::HighlightedText);
        const QColor ground = desktop.color(group, QPalette::Highlight);
        palette.setColor(group, QPalette::HighlightedText, text);
        palette.setColor(group, QPalette::Highlight, readableGround(ground, text));
    }
    view->setPalette(palette);
}

void ensureReadablePlaceholder(QLineEdit *field)
{
    QPalette palette = field->palette();
    QColor colour = palette.color(QPalette::Text);
    colour.setAlpha(kPlaceholderAlpha);
    palette.setColor(QPalette::PlaceholderText, colour);
    field->setPalette(palette);
}
