#include "update/UpdateDialog.h"

#include "dialogs/ReadableColours.h"
#include "update/DialogStyle.h"
#include "update/ForeignText.h"
#include "update/UpdateChecker.h"

#include <QDesktopServices>
#include <QLabel>
#include <QPushButton>
#include <QTextBrowser>
#include <QUrl>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

constexpr int kIconHeight = 44;
constexpr int kNotesHeight = 110;
constexpr QSize kSize(520, 260);
constexpr QSize kSizeWithNotes(520, 380);

} // namespace

UpdateDialog::UpdateDialog(const UpdateInfo &info, const QString &currentVersion, QWidget *parent) :
    QDialog(parent)
{
    setWindowTitle(tr("Update available"));
    setModal(true);
    ensureLightGround(this);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 18, 20, 16);
    layout->setSpacing(10);
    layout->addLayout(buildHeader(info, currentVersion));
    if (!info.notes.isEmpty())
        layout->addWidget(buildNotes(info.notes), 1);
    if (!info.notesUrl.isEmpty())
        layout->addWidget(buildNotesLink(info.notesUrl));
    layout->addLayout(buildButtonRow(info));
    resize(info.notes.isEmpty() ? kSize : kSizeWithNotes);
}

QBoxLayout *UpdateDialog::buildHeader(const UpdateInfo &info, const QString &currentVersion)
{
    auto *icon = new QLabel(this);
    icon->setAlignment(Qt::AlignTop);
    const QPixmap picture = scaledPicture(u":/Kelpwharf.png"_s, kIconHeight, this);
    if (!picture.isNull())
        icon->setPixmap(picture);

    auto *headline = new QLabel(this);
    headline->setTextFormat(Qt::RichText);
    headline->setWordWrap(true);
    if (info.critical)
        headline->setText(u"<span style='font-size:12pt;font-weight:700;color:#c02718;'>%1</span>"_s.arg(
            tr("Important update available")));
    else
        headline->setText(u"<span style='font-size:12pt;font-weight:700;'>%1</span>"_s.arg(
            tr("A new version of %1 is available").arg(u"Kelpwharf"_s)));

    QString versions = tr("Version %1  (you have %2)").arg(oneLine(info.latestVersion), currentVersion);
    if (!info.releaseDate.isEmpty())
        versions += tr("   Released %1").arg(oneLine(info.releaseDate));
    auto *details = new QLabel(this);
    details->setTextFormat(Qt::PlainText); // before the text: the service's words are no markup
    details->setText(versions);
    details->setWordWrap(true);
    details->setMinimumWidth(1); // or a version without a blank in it would widen the dialog
    details->setStyleSheet(u"color:#555;"_s);

    auto *words = new QVBoxLayout;
    words->addWidget(headline);
    words->addWidget(details);
    words->addStretch(1);
    auto *header = new QHBoxLayout;
    header->addWidget(icon, 0, Qt::AlignTop);
    header->addSpacing(10);
    header->addLayout(words, 1);
    return header;
}

QWidget *UpdateDialog::buildNotes(const QString &notes)
{
    auto *browser = new QTextBrowser(this);
    browser->setAccessibleName(tr("Release notes"));
    browser->setPlainText(boundedText(notes));
    browser->setMinimumHeight(kNotesHeight);
    browser->setOpenExternalLinks(true);
    return browser;
}

QWidget *UpdateDialog::buildNotesLink(const QString &address)
{
    auto *link = new QLabel(this);
    link->setTextFormat(Qt::RichText);
    link->setText(u"<a href=\"%1\" style=\"color:#0070c4;\">%2</a>"_s.arg(address.toHtmlEscaped(),
                                                                          tr("Full release notes")));
    // Anything but a page could be a file or a program on this machine.
    link->setOpenExternalLinks(isWebAddress(QUrl(address)));
    link->setTextInteractionFlags(Qt::TextBrowserInteraction);
    return link;
}

QBoxLayout *UpdateDialog::buildButtonRow(const UpdateInfo &info)
{
    auto *row = new QHBoxLayout;
    if (!info.critical) {
        auto *skip = new QPushButton(tr("Skip This Version"), this);
        connect(skip, &QPushButton::clicked, this, [this] {
            chosen = SkipVersion;
            accept();
        });
        row->addWidget(skip);
    }
    row->addStretch(1);
    auto *remind = new QPushButton(tr("Remind Me Later"), this);
    connect(remind, &QPushButton::clicked, this, [this] {
        chosen = RemindLater;
        reject();
    });
    row->addWidget(remind);
    auto *download = new QPushButton(tr("Download..."), this);
    download->setDefault(true);
    download->setEnabled(!info.downloadUrl.isEmpty());
    connect(download, &QPushButton::clicked, this, [this, page = QUrl(info.downloadUrl)] {
        chosen = Download;
        if (isWebAddress(page)) // anything else could be a file or a program on this machine
            QDesktopServices::openUrl(page);
        accept();
    });
    row->addWidget(download);
    if (!download->isEnabled())
        remind->setFocus(); // or Enter would skip the version
    return row;
}
