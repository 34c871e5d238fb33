#include "update/AboutDialog.h"

#include "dialogs/ReadableColours.h"
#include "update/DialogStyle.h"

#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

constexpr int kLogoHeight = 70;
constexpr int kButtonWidth = 96;
constexpr QSize kSmallest(516, 338);

} // namespace

AboutDialog::AboutDialog(QWidget *parent) : QDialog(parent)
{
    setWindowTitle(tr("About %1").arg(QCoreApplication::applicationName()));
    setModal(true);
    setWindowFlag(Qt::WindowContextHelpButtonHint, false);
    ensureLightGround(this);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 32, 24, 20);
    layout->setSpacing(0);
    layout->addWidget(buildLogo());
    layout->addSpacing(20);
    QLabel *version = buildText(tr("Version %1").arg(QCoreApplication::applicationVersion()));
    QFont bold = version->font();
    bold.setWeight(QFont::Bold);
    version->setFont(bold);
    layout->addWidget(version);
    layout->addSpacing(10);
    layout->addWidget(
        buildText(tr("Scheduled FTP mirroring and archive retrieval, part of the Orrinvale suite.")));
    layout->addSpacing(20);
    layout->addWidget(buildText(tr("Copyright © 2026 Orrinvale")));
    layout->addSpacing(22);
    for (const QString &address : {QStringLiteral("https://suite." KELPWHARF_DOMAIN),
                                   QStringLiteral("https://www." KELPWHARF_DOMAIN)}) {
        layout->addWidget(buildLink(address));
        layout->addSpacing(7);
    }
    layout->addStretch(1);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok, this);
    buttons->button(QDialogButtonBox::Ok)->setMinimumWidth(kButtonWidth);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    layout->addWidget(buttons, 0, Qt::AlignRight);
    setFixedSize(sizeHint().expandedTo(kSmallest));
}

QLabel *AboutDialog::buildLogo()
{
    auto *label = new QLabel(this);
    label->setAlignment(Qt::AlignCenter);
    const QPixmap logo = scaledPicture(u":/logo.png"_s, kLogoHeight, this);
    if (!logo.isNull()) {
        label->setPixmap(logo);
        return label;
    }
    label->setTextFormat(Qt::RichText);
    label->setText(u"<span style='font-size:22pt;font-weight:700;color:#0d2149;'>Kelp</span>"
                   "<span style='font-size:22pt;font-weight:700;color:#ff4d0d;'>wharf</span>"_s);
    return label;
}

QLabel *AboutDialog::buildText(const QString &text)
{
    auto *label = new QLabel(text, this);
    label->setAlignment(Qt::AlignCenter);
    label->setWordWrap(true);
    return label;
}

QLabel *AboutDialog::buildLink(const QString &address)
{
    QLabel *label = buildText(u"<a href=\"%1\" style=\"color:%2;\">%1</a>"_s.arg(address, u"#0070c4"_s));
    label->setTextFormat(Qt::RichText);
    label->setOpenExternalLinks(true);
    label->setTextInteractionFlags(Qt::TextBrowserInteraction);
    label->setCursor(Qt::PointingHandCursor);
    return label;
}
