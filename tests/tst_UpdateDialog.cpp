#include "support/BrowserStandIn.h"
#include "support/Contrast.h"
#include "support/MarkingTranslator.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"
#include "update/UpdateChecker.h"
#include "update/UpdateDialog.h"

#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QScrollBar>
#include <QScopeGuard>
#include <QTest>
#include <QTextBrowser>
#include <QTextDocument>
#include <QTimer>
#include <QVBoxLayout>

#include <iterator>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype kHuge = 5 << 20;

const QString kRunning = u"1.0.0"_s;
const QString kPage = u"https://maker.example/download?a=1&b=2"_s;
const QString kNotesPage = u"https://maker.example/notes?a=1&b=2"_s;

UpdateInfo offer()
{
    UpdateInfo info;
    info.latestVersion = u"1.2.0"_s;
    info.releaseDate = u"30 October 2026"_s;
    info.downloadUrl = kPage;
    info.notesUrl = kNotesPage;
    info.notes = u"One\nTwo"_s;
    return info;
}

QPushButton *button(const QDialog &dialog, const QString &text)
{
    for (auto *found : dialog.findChildren<QPushButton *>()) {
        if (found->text() == text)
            return found;
    }
    return nullptr;
}

QStringList buttonTexts(const QDialog &dialog)
{
    QStringList texts;
    for (const auto *found : dialog.findChildren<QPushButton *>())
        texts += found->text();
    return texts;
}

/** The labels: icon, headline, details and, if there is one, the link. */
QLabel *label(const QDialog &dialog, int number) { return dialog.findChildren<QLabel *>().value(number); }
QLabel *headline(const QDialog &dialog) { return label(dialog, 1); }
QLabel *details(const QDialog &dialog) { return label(dialog, 2); }
QLabel *link(const QDialog &dialog) { return label(dialog, 3); }
QTextBrowser *notes(const QDialog &dialog) { return dialog.findChild<QTextBrowser *>(); }

void bringUp(QDialog *dialog)
{
    dialog->show();
    QVERIFY(QTest::qWaitForWindowActive(dialog));
}

void clickOnLink(QLabel *label)
{
    QTest::mouseClick(label, Qt::LeftButton, {}, QPoint(12, label->height() / 2));
}

void press(QDialog *dialog, Qt::Key key)
{
    QTest::keyClick(dialog->focusWidget() ? dialog->focusWidget() : dialog, key);
}

} // namespace

class TestUpdateDialog : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void textsAreTranslated();
    void theFrame();
    void theIcon();
    void theHeadline_data();
    void theHeadline();
    void theDetails_data();
    void theDetails();
    void theNotes();
    void theLink();
    void theButtons_data();
    void theButtons();
    void theSize_data();
    void theSize();

    void eachWayOut_data();
    void eachWayOut();
    void withoutADownloadRemindIsTheWayOut();
    void enterWithoutADownloadDoesNotSkip();
    void theLinkOpensTheNotes();
    void theLinkOpensByKeyboard();

    void addressesThatAreNotOpened_data();
    void addressesThatAreNotOpened();
    void notesAddressesThatAreNotOpened_data();
    void notesAddressesThatAreNotOpened();
    void addressesThatAreOpened_data();
    void addressesThatAreOpened();
    void anAddressIsNoMarkup();

    void notesAreNoMarkup();
    void clickingThroughNotesOpensNothing();
    void longNotesScroll();
    void hugeNotesAreCut_data();
    void hugeNotesAreCut();
    void notesOfOddCharacters();
    void theServicesWordsAreNoMarkup_data();
    void theServicesWordsAreNoMarkup();
    void theServicesWordsStayWithinTheirLine_data();
    void theServicesWordsStayWithinTheirLine();
    void hugeWordsLeaveTheDialogInShape_data();
    void hugeWordsLeaveTheDialogInShape();

    void itsColoursStayReadable_data();
    void itsColoursStayReadable();
};

void TestUpdateDialog::cleanup() { QApplication::setPalette(QPalette()); }

void TestUpdateDialog::theFrame()
{
    QWidget window;
    const UpdateDialog dialog(offer(), kRunning, &window);
    QCOMPARE(dialog.windowTitle(), u"Update available"_s);
    QVERIFY(dialog.isModal());
    QCOMPARE(dialog.parentWidget(), &window);
    QCOMPARE(dialog.choice(), UpdateDialog::RemindLater);
    QCOMPARE(dialog.layout()->contentsMargins(), QMargins(20, 18, 20, 16));
    QCOMPARE(dialog.layout()->spacing(), 10);
    QCOMPARE(int(UpdateDialog::RemindLater), 0);
    QCOMPARE(int(UpdateDialog::SkipVersion), 1);
    QCOMPARE(int(UpdateDialog::Download), 2);

    const auto *layout = qobject_cast<QVBoxLayout *>(dialog.layout());
    QVERIFY(layout);
    QCOMPARE(layout->count(), 4);
    const auto *header = qobject_cast<QHBoxLayout *>(layout->itemAt(0)->layout());
    QVERIFY(header);
    QCOMPARE(header->itemAt(0)->widget(), label(dialog, 0));
    QCOMPARE(header->itemAt(0)->alignment(), Qt::AlignTop);
    QCOMPARE(header->itemAt(1)->sizeHint().width(), 10);
    QCOMPARE(header->stretch(2), 1);
    const auto *words = qobject_cast<QVBoxLayout *>(header->itemAt(2)->layout());
    QVERIFY(words);
    QCOMPARE(words->count(), 3);
    QCOMPARE(words->itemAt(0)->widget(), headline(dialog));
    QCOMPARE(words->itemAt(1)->widget(), details(dialog));
    QCOMPARE(words->stretch(2), 1);
    QCOMPARE(layout->itemAt(1)->widget(), notes(dialog));
    QCOMPARE(layout->stretch(1), 1);
    QCOMPARE(layout->itemAt(2)->widget(), link(dialog));
    const auto *row = qobject_cast<QHBoxLayout *>(layout->itemAt(3)->layout());
    QVERIFY(row);
    QCOMPARE(row->count(), 4);
    QCOMPARE(row->itemAt(0)->widget(), button(dialog, u"Skip This Version"_s));
    QCOMPARE(row->stretch(1), 1);
    QCOMPARE(row->itemAt(2)->widget(), button(dialog, u"Remind Me Later"_s));
    QCOMPARE(row->itemAt(3)->widget(), button(dialog, u"Download..."_s));
}

void TestUpdateDialog::theIcon()
{
    const UpdateDialog dialog(offer(), kRunning);
    const QPixmap picture = label(dialog, 0)->pixmap();
    const qreal ratio = dialog.devicePixelRatioF();
    QCOMPARE(picture.height(), qRound(44 * ratio));
    QCOMPARE(picture.devicePixelRatio(), ratio);
    QVERIFY(label(dialog, 0)->alignment().testFlag(Qt::AlignTop));
}

void TestUpdateDialog::theHeadline_data()
{
    QTest::addColumn<bool>("isCritical");
    QTest::addColumn<QString>("text");
    QTest::newRow("plain") << false
                           << u"<span style='font-size:12pt;font-weight:700;'>"
                              "A new version of Kelpwharf is available</span>"_s;
    QTest::newRow("critical") << true
                              << u"<span style='font-size:12pt;font-weight:700;color:#c02718;'>"
                                 "Important update available</span>"_s;
}

void TestUpdateDialog::theHeadline()
{
    QFETCH(const bool, isCritical);
    UpdateInfo info = offer();
    info.critical = isCritical;
    QCoreApplication::setApplicationName(u"Other"_s); // the name is the program's own
    const UpdateDialog dialog(info, kRunning);
    TestWindow::setIdentity();

    QTEST(headline(dialog)->text(), "text");
    QCOMPARE(headline(dialog)->textFormat(), Qt::RichText);
    QVERIFY(headline(dialog)->wordWrap());
}

void TestUpdateDialog::theDetails_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<QString>("running");
    QTest::addColumn<QString>("date");
    QTest::addColumn<QString>("text");
    QTest::newRow("with a date") << u"1.2.0"_s << u"1.0.0"_s << u"2026-10-30"_s
                                 << u"Version 1.2.0  (you have 1.0.0)   Released 2026-10-30"_s;
    QTest::newRow("without a date") << u"1.2.0"_s << u"0.9"_s << QString()
                                    << u"Version 1.2.0  (you have 0.9)"_s;
    QTest::newRow("a date that is none") << u"2"_s << u"1"_s << u"soon, or  later"_s
                                         << u"Version 2  (you have 1)   Released soon, or  later"_s;
    QTest::newRow("placeholders") << u"%2"_s << u"%1"_s << u"%1%2"_s
                                  << u"Version %2  (you have %1)   Released %1%2"_s;
}

void TestUpdateDialog::theDetails()
{
    QFETCH(const QString, version);
    QFETCH(const QString, running);
    QFETCH(const QString, date);
    UpdateInfo info = offer();
    info.latestVersion = version;
    info.releaseDate = date;
    const UpdateDialog dialog(info, running);

    QTEST(details(dialog)->text(), "text");
    QVERIFY(details(dialog)->wordWrap());
    QCOMPARE(details(dialog)->styleSheet(), u"color:#555;"_s);
}

void TestUpdateDialog::theNotes()
{
    UpdateInfo info = offer();
    const UpdateDialog dialog(info, kRunning);
    QCOMPARE(notes(dialog)->toPlainText(), u"One\nTwo"_s);
    QCOMPARE(notes(dialog)->minimumHeight(), 110);
    QVERIFY(notes(dialog)->openExternalLinks());
    QVERIFY(notes(dialog)->isReadOnly());

    info.notes.clear();
    QVERIFY(!notes(UpdateDialog(info, kRunning)));
}

void TestUpdateDialog::theLink()
{
    UpdateInfo info = offer();
    const UpdateDialog dialog(info, kRunning);
    QCOMPARE(link(dialog)->text(), u"<a href=\"https://maker.example/notes?a=1&amp;b=2\" "
                                   "style=\"color:#0070c4;\">Full release notes</a>"_s);
    QCOMPARE(link(dialog)->textFormat(), Qt::RichText);
    QVERIFY(link(dialog)->openExternalLinks());
    QCOMPARE(link(dialog)->textInteractionFlags(), Qt::TextInteractionFlags(Qt::TextBrowserInteraction));

    info.notesUrl.clear();
    QCOMPARE(UpdateDialog(info, kRunning).findChildren<QLabel *>().size(), 3);
}

void TestUpdateDialog::theButtons_data()
{
    QTest::addColumn<bool>("isCritical");
    QTest::addColumn<QString>("page");
    QTest::addColumn<QStringList>("texts");
    const QString skip = u"Skip This Version"_s;
    const QString remind = u"Remind Me Later"_s;
    const QString download = u"Download..."_s;
    QTest::newRow("plain") << false << kPage << QStringList{skip, remind, download};
    QTest::newRow("critical") << true << kPage << QStringList{remind, download};
    QTest::newRow("no page") << false << QString() << QStringList{skip, remind, download};
    QTest::newRow("critical, no page") << true << QString() << QStringList{remind, download};
}

void TestUpdateDialog::theButtons()
{
    QFETCH(const bool, isCritical);
    QFETCH(const QString, page);
    UpdateInfo info = offer();
    info.critical = isCritical;
    info.downloadUrl = page;
    const UpdateDialog dialog(info, kRunning);

    QTEST(buttonTexts(dialog), "texts");
    QVERIFY(button(dialog, u"Download..."_s)->isDefault());
    QCOMPARE(button(dialog, u"Download..."_s)->isEnabled(), !page.isEmpty());
}

void TestUpdateDialog::theSize_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QSize>("size");
    QTest::newRow("with notes") << u"One"_s << QSize(520, 380);
    QTest::newRow("without notes") << QString() << QSize(520, 260);
}

void TestUpdateDialog::theSize()
{
    QFETCH(const QString, text);
    UpdateInfo info = offer();
    info.notes = text;
    UpdateDialog dialog(info, kRunning);
    QTEST(dialog.size(), "size");
    bringUp(&dialog);
    QTEST(dialog.size(), "size");
}

void TestUpdateDialog::eachWayOut_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<bool>("isCritical");
    QTest::addColumn<UpdateDialog::Choice>("choice");
    QTest::addColumn<int>("result");
    for (const bool isCritical : {false, true}) {
        const auto row = [isCritical](const char *way, UpdateDialog::Choice choice, int result) {
            QTest::addRow("%s%s", way, isCritical ? ", critical" : "")
                << QString::fromLatin1(way) << isCritical << choice << result;
        };
        if (!isCritical)
            row("Skip This Version", UpdateDialog::SkipVersion, QDialog::Accepted);
        row("Remind Me Later", UpdateDialog::RemindLater, QDialog::Rejected);
        row("Download...", UpdateDialog::Download, QDialog::Accepted);
        row("Enter", UpdateDialog::Download, QDialog::Accepted);
        row("Escape", UpdateDialog::RemindLater, QDialog::Rejected);
        row("the window's X", UpdateDialog::RemindLater, QDialog::Rejected);
    }
}

void TestUpdateDialog::eachWayOut()
{
    QFETCH(const QString, way);
    QFETCH(const bool, isCritical);
    QFETCH(const UpdateDialog::Choice, choice);
    BrowserStandIn browser;
    UpdateInfo info = offer();
    info.critical = isCritical;
    UpdateDialog dialog(info, kRunning);
    QTimer::singleShot(0, &dialog, [&dialog, way] {
        QVERIFY(QTest::qWaitForWindowActive(&dialog));
        if (QPushButton *wanted = button(dialog, way))
            QTest::mouseClick(wanted, Qt::LeftButton);
        else if (way == u"Enter"_s)
            press(&dialog, Qt::Key_Return);
        else if (way == u"Escape"_s)
            press(&dialog, Qt::Key_Escape);
        else
            dialog.close();
        if (dialog.isVisible())
            dialog.done(-1); // or a test that fails would hang
    });

    QTEST(dialog.exec(), "result");

    QCOMPARE(dialog.choice(), choice);
    QCOMPARE(browser.opened, choice == UpdateDialog::Download ? QList<QUrl>{QUrl(kPage)} : QList<QUrl>());
}

void TestUpdateDialog::withoutADownloadRemindIsTheWayOut()
{
    BrowserStandIn browser;
    UpdateInfo info = offer();
    info.downloadUrl.clear();
    info.critical = true;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    QTest::mouseClick(button(dialog, u"Download..."_s), Qt::LeftButton);
    QVERIFY(dialog.isVisible());
    QTest::mouseClick(button(dialog, u"Remind Me Later"_s), Qt::LeftButton);

    QVERIFY(!dialog.isVisible());
    QCOMPARE(dialog.choice(), UpdateDialog::RemindLater);
    QCOMPARE(browser.opened.size(), 0);
}

void TestUpdateDialog::enterWithoutADownloadDoesNotSkip()
{
    UpdateInfo info = offer();
    info.downloadUrl.clear();
    info.notes.clear();
    info.notesUrl.clear();
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);
    QCOMPARE(dialog.focusWidget(), button(dialog, u"Remind Me Later"_s));

    press(&dialog, Qt::Key_Return);

    QVERIFY(!dialog.isVisible());

    QCOMPARE(dialog.choice(), UpdateDialog::RemindLater);
}

void TestUpdateDialog::theLinkOpensTheNotes()
{
    BrowserStandIn browser;
    UpdateDialog dialog(offer(), kRunning);
    bringUp(&dialog);

    clickOnLink(link(dialog));

    QCOMPARE(browser.opened, QList<QUrl>{QUrl(kNotesPage)});
    QVERIFY(dialog.isVisible());
}

void TestUpdateDialog::theLinkOpensByKeyboard()
{
    BrowserStandIn browser;
    UpdateDialog dialog(offer(), kRunning);
    bringUp(&dialog);
    for (int tabs = 0; tabs < 9 && dialog.focusWidget() != link(dialog); ++tabs)
        press(&dialog, Qt::Key_Tab);
    press(&dialog, Qt::Key_Tab); // from the label to its link

    press(&dialog, Qt::Key_Return);

    QCOMPARE(browser.opened, QList<QUrl>{QUrl(kNotesPage)});
    QVERIFY(dialog.isVisible());
}

void TestUpdateDialog::addressesThatAreNotOpened_data()
{
    QTest::addColumn<QString>("address");
    for (const char *address :
         {"file:///etc/passwd", "/etc/passwd", "ftp://maker.example/setup.exe", "javascript:alert(1)",
          "data:text/html,x", "mailto:kim@maker.example", "vnd.installer:setup", "maker.example/download",
          "//maker.example/download", "https:", "https:///download", "http://[maker.example/",
          "https://maker.example:99999/", "<b>", "%1", " "})
        QTest::newRow(address) << QString::fromLatin1(address);
}

void TestUpdateDialog::addressesThatAreNotOpened()
{
    QFETCH(const QString, address);
    BrowserStandIn browser;
    UpdateInfo info = offer();
    info.downloadUrl = address;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    QTest::mouseClick(button(dialog, u"Download..."_s), Qt::LeftButton);

    QCOMPARE(browser.opened.size(), 0);
    QVERIFY(!dialog.isVisible());
    QCOMPARE(dialog.choice(), UpdateDialog::Download);
}

void TestUpdateDialog::notesAddressesThatAreNotOpened_data() { addressesThatAreNotOpened_data(); }

void TestUpdateDialog::notesAddressesThatAreNotOpened()
{
    QFETCH(const QString, address);
    BrowserStandIn browser;
    UpdateInfo info = offer();
    info.notesUrl = address;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    clickOnLink(link(dialog));

    QCOMPARE(browser.opened.size(), 0);
    QVERIFY(dialog.isVisible());
}

void TestUpdateDialog::addressesThatAreOpened_data()
{
    QTest::addColumn<QString>("address");
    for (const char *address :
         {"https://maker.example", "http://maker.example/a b", "HTTPS://Maker.Example/x",
          "https://maker.example:8443/x#y", "https://[::1]/x"})
        QTest::newRow(address) << QString::fromLatin1(address);
}

void TestUpdateDialog::addressesThatAreOpened()
{
    QFETCH(const QString, address);
    BrowserStandIn browser;
    UpdateInfo info = offer();
    info.downloadUrl = address;
    info.notesUrl = address;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    clickOnLink(link(dialog));
    QTest::mouseClick(button(dialog, u"Download..."_s), Qt::LeftButton);

    QCOMPARE(browser.opened, (QList<QUrl>{QUrl(address), QUrl(address)}));
}

void TestUpdateDialog::anAddressIsNoMarkup()
{
    BrowserStandIn browser;
    const QString address = u"https://maker.example/\"><img src=':/logo.png'><a href=\"file:///etc/passwd"_s;
    UpdateInfo info = offer();
    info.notesUrl = address;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    QTextDocument document;
    document.setHtml(link(dialog)->text());
    QCOMPARE(document.toPlainText(), u"Full release notes"_s);
    clickOnLink(link(dialog));
    QCOMPARE(browser.opened, QList<QUrl>{QUrl(address)});
}

void TestUpdateDialog::notesAreNoMarkup()
{
    const QString text =
        u"<h1>Big</h1> <a href=\"https://maker.example\">x</a> &lt; &amp; <img src=\":/logo.png\">"
        "\n<script>alert(1)</script>"_s;
    UpdateInfo info = offer();
    info.notes = text;
    const UpdateDialog dialog(info, kRunning);
    QCOMPARE(notes(dialog)->toPlainText(), text);
}

void TestUpdateDialog::clickingThroughNotesOpensNothing()
{
    BrowserStandIn browser;
    UpdateInfo info = offer();
    info.notes = u"<a href=\"https://maker.example\">click here</a>"_s;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    for (int x = 2; x < 300; x += 8)
        QTest::mouseClick(notes(dialog)->viewport(), Qt::LeftButton, {}, QPoint(x, 12));

    QCOMPARE(browser.opened.size(), 0);
}

void TestUpdateDialog::longNotesScroll()
{
    UpdateInfo info = offer();
    info.notes = u"A line that says what is new in this version of the program\n"_s.repeated(200);
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    QCOMPARE(notes(dialog)->toPlainText(), info.notes);
    QCOMPARE(dialog.size(), QSize(520, 380));
    QVERIFY(notes(dialog)->verticalScrollBar()->maximum() > 0);
    QVERIFY(!notes(dialog)->horizontalScrollBar()->isVisible());
    QVERIFY(dialog.rect().contains(button(dialog, u"Download..."_s)->geometry()));
}

void TestUpdateDialog::hugeNotesAreCut_data()
{
    QTest::addColumn<QString>("unit");
    QTest::newRow("a single word") << u"n"_s;
    QTest::newRow("lines") << u"\n"_s;
    QTest::newRow("words") << u"word "_s;
    QTest::newRow("two scripts in turn") << u"a\u05D0"_s;
    QTest::newRow("from right to left") << u"\u0634"_s;
    QTest::newRow("outside the basic plane") << u"\U0001F40B"_s;
}

void TestUpdateDialog::hugeNotesAreCut()
{
    QFETCH(const QString, unit);
    UpdateInfo info = offer();
    info.notes = u'.' + unit.repeated(kHuge / unit.size());
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    const QString shown = notes(dialog)->toPlainText();
    QVERIFY(shown.size() > 19000 && shown.size() < 21000);
    QVERIFY(shown.endsWith(u'\u2026'));
    QVERIFY(info.notes.startsWith(shown.chopped(1)));
    QVERIFY(!shown.at(shown.size() - 2).isHighSurrogate());
    QCOMPARE(dialog.size(), QSize(520, 380));
}

void TestUpdateDialog::notesOfOddCharacters()
{
    UpdateInfo info = offer();
    info.notes.clear();
    const char16_t codes[] = {0x0000, 0x0001, 0x0007, 0x001B, 0x00A0, 0x00AD, 0x200B, 0x202E, 0x2028,
                              0x2029, 0xD800, 0xDC00, 0xFDD0, 0xFDD1, 0xFEFF, 0xFFFC, 0xFFFE, 0xFFFF};
    for (const char16_t code : codes)
        info.notes += u"a"_s + QChar(code) + u"b\r\n"_s;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    QVERIFY(notes(dialog)->toPlainText().size() >= qsizetype(std::size(codes)) * 3);
    dialog.close();
    QCOMPARE(dialog.choice(), UpdateDialog::RemindLater);
}

void TestUpdateDialog::theServicesWordsAreNoMarkup_data()
{
    QTest::addColumn<QString>("words");
    QTest::newRow("bold") << u"<b>2</b>"_s;
    QTest::newRow("a link") << u"<a href='https://evil.example'>2</a>"_s;
    QTest::newRow("a picture") << u"<img src=':/logo.png'>"_s;
    QTest::newRow("entities") << u"&lt;2&amp;"_s;
    QTest::newRow("a document") << u"<!DOCTYPE html><html><h1>2</h1></html>"_s;
    QTest::newRow("mnemonics") << u"2&3"_s;
}

void TestUpdateDialog::theServicesWordsAreNoMarkup()
{
    QFETCH(const QString, words);
    UpdateInfo info = offer();
    info.latestVersion = words;
    info.releaseDate = words;
    const UpdateDialog dialog(info, kRunning);

    QCOMPARE(details(dialog)->textFormat(), Qt::PlainText);
    QCOMPARE(details(dialog)->text(), u"Version %1  (you have 1.0.0)   Released %1"_s.arg(words));
    QVERIFY(!headline(dialog)->text().contains(words));
}

void TestUpdateDialog::theServicesWordsStayWithinTheirLine_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("shown");
    QTest::newRow("line breaks") << u"2\n\nYour computer\r\nis"_s << u"2  Your computer  is"_s;
    QTest::newRow("other line breaks") << u"2\u2028a\u2029b\vc\fd\u0085e"_s << u"2 a b c d e"_s;
    QTest::newRow("turned round") << u"2\u202E0.0.1\u2066x"_s << u"2 0.0.1 x"_s;
    QTest::newRow("control characters") << u"2\u0000\u0007\u001b[31m\t"_s << u"2   [31m "_s;
    QTest::newRow("other letters") << u"2 \u00e4\u6f22\U0001F40B"_s << u"2 \u00e4\u6f22\U0001F40B"_s;
    QTest::newRow("100 characters") << QString(100, u'1') << QString(100, u'1');
    QTest::newRow("101 characters") << QString(101, u'1') << QString(QString(100, u'1') + u'\u2026');
}

void TestUpdateDialog::theServicesWordsStayWithinTheirLine()
{
    QFETCH(const QString, words);
    QFETCH(const QString, shown);
    UpdateInfo info = offer();
    info.latestVersion = words;
    info.releaseDate = words;
    const UpdateDialog dialog(info, kRunning);

    QCOMPARE(details(dialog)->text(), u"Version %1  (you have 1.0.0)   Released %1"_s.arg(shown));
}

void TestUpdateDialog::hugeWordsLeaveTheDialogInShape_data()
{
    QTest::addColumn<QString>("unit");
    QTest::newRow("a single word") << u"W"_s;
    QTest::newRow("lines") << u"W\n"_s;
    QTest::newRow("words") << u"word "_s;
}

void TestUpdateDialog::hugeWordsLeaveTheDialogInShape()
{
    QFETCH(const QString, unit);
    const QString huge = unit.repeated(kHuge / unit.size());
    UpdateInfo info;
    info.latestVersion = u"2."_s + huge;
    info.releaseDate = huge;
    info.downloadUrl = u"https://maker.example/"_s + huge;
    info.notesUrl = info.downloadUrl;
    info.notes = huge;
    info.minSupportedVersion = huge;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    QVERIFY(dialog.width() <= 600);
    QVERIFY(dialog.height() <= 480);
    for (const QString &text : buttonTexts(dialog))
        QVERIFY(dialog.rect().contains(button(dialog, text)->geometry()));
    press(&dialog, Qt::Key_Escape);
    QVERIFY(!dialog.isVisible());
}

void TestUpdateDialog::itsColoursStayReadable_data()
{
    QTest::addColumn<QColor>("desktop");
    QTest::newRow("white") << QColor(Qt::white);
    QTest::newRow("light grey") << QColor(0xEF, 0xEF, 0xEF);
    QTest::newRow("mid grey") << QColor(0x80, 0x80, 0x80);
    QTest::newRow("dark grey") << QColor(0x2B, 0x2B, 0x2B);
    QTest::newRow("black") << QColor(Qt::black);
}

void TestUpdateDialog::itsColoursStayReadable()
{
    QFETCH(const QColor, desktop);
    QApplication::setPalette(QPalette(desktop));
    UpdateInfo info = offer();
    info.critical = true;
    UpdateDialog dialog(info, kRunning);
    bringUp(&dialog);

    const QColor ground = dialog.grab().toImage().pixelColor(2, 2);
    QVERIFY(contrast(ground, QColor(0x55, 0x55, 0x55)) > 4.5);
    QVERIFY(contrast(ground, QColor(0xC0, 0x27, 0x18)) > 4.5);
    QVERIFY(contrast(ground, QColor(0x00, 0x70, 0xC4)) > 4.5);
    QVERIFY(contrast(ground, headline(dialog)->palette().color(QPalette::WindowText)) > 4.5);
    const QPalette browser = notes(dialog)->palette();
    QVERIFY(contrast(browser.color(QPalette::Base), browser.color(QPalette::Text)) > 4.5);
    for (const QString &text : buttonTexts(dialog)) {
        const QPalette palette = button(dialog, text)->palette();
        QVERIFY(contrast(palette.color(QPalette::Button), palette.color(QPalette::ButtonText)) > 4.5);
    }
    QCOMPARE(ground == desktop, desktop == QColor(Qt::white)); // what is light enough is kept
}

void TestUpdateDialog::textsAreTranslated()
{
    MarkingTranslator translator("UpdateDialog");
    QCoreApplication::installTranslator(&translator);
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    UpdateInfo info = offer();
    info.releaseDate = u"today"_s;
    info.notesUrl = u"https://www.orrinvale.example/notes"_s;
    for (const bool isCritical : {false, true}) {
        info.critical = isCritical;
        const UpdateDialog dialog(info, kRunning);
        QCOMPARE(dialog.windowTitle(), u"[Update available]"_s);
        QVERIFY2(headline(dialog)->text().contains(isCritical
                                                       ? u">[Important update available]<"_s
                                                       : u">[A new version of Kelpwharf is available]<"_s),
                 qPrintable(headline(dialog)->text()));
        QVERIFY2(details(dialog)->text().startsWith(u"[Version "_s) &&
                     details(dialog)->text().endsWith(u"[   Released today]"_s),
                 qPrintable(details(dialog)->text()));
        QVERIFY(link(dialog)->text().contains(u">[Full release notes]<"_s));
        for (const auto *part : dialog.findChildren<QPushButton *>())
            QVERIFY2(part->text().startsWith(u'['), qPrintable(part->text()));
    }
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestUpdateDialog test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_UpdateDialog.moc"
