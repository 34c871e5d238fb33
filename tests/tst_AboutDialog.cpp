#include "support/BrowserStandIn.h"
#include "support/Contrast.h"
#include "support/MarkingTranslator.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"
#include "update/AboutDialog.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QScopeGuard>
#include <QTest>
#include <QTimer>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

// The program's pictures, which rcc registers by these functions under the name of the collection.
int qInitResources_assets();
int qCleanupResources_assets();

namespace {

QStringList shown(const QDialog &dialog)
{
    QStringList texts;
    for (const auto *label : dialog.findChildren<QLabel *>()) {
        if (!label->text().isEmpty())
            texts += label->text();
    }
    return texts;
}

/** What the main layout holds: "label", "buttons", "gap 20" or "stretch". */
QStringList contentsOf(const QDialog &dialog)
{
    const auto *layout = qobject_cast<QVBoxLayout *>(dialog.layout());
    QStringList contents;
    for (int i = 0; layout && i < layout->count(); ++i) {
        const QLayoutItem *item = layout->itemAt(i);
        if (layout->stretch(i) > 0)
            contents += u"stretch"_s;
        else if (auto *widget = layout->itemAt(i)->widget())
            contents += qobject_cast<QLabel *>(widget) ? u"label"_s : u"buttons"_s;
        else
            contents += u"gap %1"_s.arg(item->sizeHint().height());
    }
    return contents;
}

QList<QLabel *> linksOf(const QDialog &dialog)
{
    QList<QLabel *> links;
    for (auto *label : dialog.findChildren<QLabel *>()) {
        if (label->text().contains(u"<a "_s))
            links += label;
    }
    return links;
}

QPushButton *okButton(const QDialog &dialog)
{
    return dialog.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Ok);
}

} // namespace

class TestAboutDialog : public QObject
{
    Q_OBJECT

private slots:
    void textsAreTranslated();
    void cleanup();

    void theFrame();
    void theTextsInTheirOrder();
    void theLayout();
    void theLogo();
    void withoutTheLogoTheWordmarkShows();
    void theVersionIsBold();
    void theLinks();
    void aClickOnALinkOpensIt_data();
    void aClickOnALinkOpensIt();
    void itCanNotBeResized();
    void longTextsMakeItLarger();
    void waysOut_data();
    void waysOut();
    void itsColoursStayReadable_data();
    void itsColoursStayReadable();
};

void TestAboutDialog::cleanup()
{
    TestWindow::setIdentity();
    QApplication::setPalette(QPalette());
}

void TestAboutDialog::theFrame()
{
    const AboutDialog dialog;
    QCOMPARE(dialog.windowTitle(), u"About Kelpwharf"_s);
    QVERIFY(dialog.isModal());
    QVERIFY(!dialog.windowFlags().testFlag(Qt::WindowContextHelpButtonHint));

    QCoreApplication::setApplicationName(u"Other"_s);
    QCOMPARE(AboutDialog().windowTitle(), u"About Other"_s);
}

void TestAboutDialog::theTextsInTheirOrder()
{
    QCoreApplication::setApplicationVersion(u"1.2.3"_s);
    const QStringList texts = shown(AboutDialog());
    QCOMPARE(texts.size(), 5);
    QCOMPARE(texts.at(0), u"Version 1.2.3"_s);
    QCOMPARE(texts.at(1), u"Scheduled FTP mirroring and archive retrieval, part of the Orrinvale suite."_s);
    QVERIFY(texts.at(2).startsWith(u"Copyright"_s));
    QVERIFY(texts.at(2).contains(u"Orrinvale"_s));
}

void TestAboutDialog::theLayout()
{
    const AboutDialog dialog;
    QCOMPARE(dialog.layout()->contentsMargins(), QMargins(24, 32, 24, 20));
    QCOMPARE(dialog.layout()->spacing(), 0);
    QCOMPARE(contentsOf(dialog), (QStringList{u"label"_s, u"gap 20"_s, u"label"_s, u"gap 10"_s, u"label"_s,
                                              u"gap 20"_s, u"label"_s, u"gap 22"_s, u"label"_s, u"gap 7"_s,
                                              u"label"_s, u"gap 7"_s, u"stretch"_s, u"buttons"_s}));
    const QLayout *layout = dialog.layout();
    QCOMPARE(layout->itemAt(layout->count() - 1)->alignment(), Qt::AlignRight);
    const auto labels = dialog.findChildren<QLabel *>();
    for (const QLabel *label : labels) {
        QCOMPARE(label->alignment(), Qt::AlignCenter);
        QCOMPARE(label->wordWrap(), label != labels.first()); // all but the logo
    }
}

void TestAboutDialog::theLogo()
{
    const AboutDialog dialog;
    const auto *logo = dialog.findChildren<QLabel *>().first();
    const qreal ratio = dialog.devicePixelRatioF();
    const QPixmap picture = logo->pixmap();
    QVERIFY(!picture.isNull());
    QCOMPARE(picture.height(), qRound(70 * ratio));
    QCOMPARE(picture.devicePixelRatio(), ratio);
    QCOMPARE(logo->text(), QString());
}

void TestAboutDialog::withoutTheLogoTheWordmarkShows()
{
    qCleanupResources_assets();
    const auto restore = qScopeGuard([] { qInitResources_assets(); });
    QVERIFY(QPixmap(u":/logo.png"_s).isNull());

    AboutDialog dialog;

    auto *logo = dialog.findChildren<QLabel *>().first();
    QVERIFY(logo->pixmap().isNull());
    QCOMPARE(logo->text(), u"<span style='font-size:22pt;font-weight:700;color:#0d2149;'>Kelp</span>"
                           "<span style='font-size:22pt;font-weight:700;color:#ff4d0d;'>wharf</span>"_s);
    QCOMPARE(logo->textFormat(), Qt::RichText);
    QCOMPARE(logo->alignment(), Qt::AlignCenter);
    // Both colours are seen in what is painted.
    const QImage image = logo->grab().toImage();
    int dark = 0;
    int orange = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            dark += image.pixelColor(x, y) == QColor(0x0D, 0x21, 0x49) ? 1 : 0;
            orange += image.pixelColor(x, y) == QColor(0xFF, 0x4D, 0x0D) ? 1 : 0;
        }
    }
    QVERIFY(dark > 0);
    QVERIFY(orange > 0);
}

void TestAboutDialog::theVersionIsBold()
{
    const AboutDialog dialog;
    const auto labels = dialog.findChildren<QLabel *>();
    QCOMPARE(int(labels.at(1)->font().weight()), 700);
    QCOMPARE(labels.at(1)->font().pointSizeF(), labels.at(2)->font().pointSizeF());
    QCOMPARE(int(labels.at(2)->font().weight()), 400);
}

void TestAboutDialog::theLinks()
{
    const AboutDialog dialog;
    const QList<QLabel *> links = linksOf(dialog);
    QCOMPARE(links.size(), 2);
    QVERIFY(links.at(0)->text() != links.at(1)->text());
    for (const QLabel *link : links) {
        const QString address = link->text().section(u'"', 1, 1);
        QVERIFY(QUrl(address).scheme() == u"https"_s);
        QVERIFY(!QUrl(address).host().isEmpty());
        QCOMPARE(link->text(), u"<a href=\"%1\" style=\"color:#0070c4;\">%2</a>"_s.arg(address, address));
        QCOMPARE(link->textFormat(), Qt::RichText);
        QVERIFY(link->openExternalLinks());
        QCOMPARE(link->textInteractionFlags(), Qt::TextInteractionFlags(Qt::TextBrowserInteraction));
        QCOMPARE(link->cursor().shape(), Qt::PointingHandCursor);
    }
}

void TestAboutDialog::aClickOnALinkOpensIt_data()
{
    QTest::addColumn<int>("number");
    QTest::newRow("the family's") << 0;
    QTest::newRow("the maker's") << 1;
}

void TestAboutDialog::aClickOnALinkOpensIt()
{
    QFETCH(const int, number);
    BrowserStandIn browser;
    AboutDialog dialog;
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    QLabel *link = linksOf(dialog).at(number);

    QTest::mouseClick(link, Qt::LeftButton, {}, link->rect().center());

    QCOMPARE(browser.opened, QList<QUrl>{QUrl(link->text().section(u'"', 1, 1))});
    QVERIFY(dialog.isVisible());
}

void TestAboutDialog::itCanNotBeResized()
{
    AboutDialog dialog;
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    const QSize size = dialog.size();
    QVERIFY(size.width() >= 516 && size.height() >= 338);

    dialog.resize(900, 900);
    QCOMPARE(dialog.size(), size);
    dialog.resize(10, 10);
    QCOMPARE(dialog.size(), size);
    QCOMPARE(dialog.minimumSize(), dialog.maximumSize());
}

void TestAboutDialog::longTextsMakeItLarger()
{
    const QFont usual = QApplication::font();
    QFont large = usual;
    large.setPointSizeF(usual.pointSizeF() * 2);
    QApplication::setFont(large);
    const auto restore = qScopeGuard([usual] { QApplication::setFont(usual); });

    const AboutDialog dialog;

    QCOMPARE(dialog.size(), dialog.sizeHint().expandedTo(QSize(516, 338)));
    QVERIFY(dialog.height() > 338);
}

void TestAboutDialog::waysOut_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<int>("result");
    QTest::newRow("OK") << u"ok"_s << int(QDialog::Accepted);
    QTest::newRow("Enter") << u"enter"_s << int(QDialog::Accepted);
    QTest::newRow("Escape") << u"escape"_s << int(QDialog::Rejected);
    QTest::newRow("the window's X") << u"x"_s << int(QDialog::Rejected);
}

void TestAboutDialog::waysOut()
{
    QFETCH(const QString, way);
    AboutDialog dialog;
    QCOMPARE(okButton(dialog)->minimumWidth(), 96);
    QCOMPARE(dialog.findChild<QDialogButtonBox *>()->buttons().size(), 1);
    QTimer::singleShot(0, &dialog, [&dialog, way] {
        QVERIFY(QTest::qWaitForWindowActive(&dialog));
        QVERIFY(okButton(dialog)->isDefault());
        if (way == u"ok"_s)
            QTest::mouseClick(okButton(dialog), Qt::LeftButton);
        else if (way == u"x"_s)
            dialog.close();
        else
            QTest::keyClick(dialog.focusWidget() ? dialog.focusWidget() : &dialog,
                            way == u"enter"_s ? Qt::Key_Return : Qt::Key_Escape);
        if (dialog.isVisible())
            dialog.done(-1); // or a test that fails would hang
    });

    QTEST(dialog.exec(), "result");
}

void TestAboutDialog::itsColoursStayReadable_data()
{
    QTest::addColumn<QColor>("desktop");
    QTest::newRow("white") << QColor(Qt::white);
    QTest::newRow("light grey") << QColor(0xEF, 0xEF, 0xEF);
    QTest::newRow("mid grey") << QColor(0x80, 0x80, 0x80);
    QTest::newRow("dark grey") << QColor(0x2B, 0x2B, 0x2B);
    QTest::newRow("black") << QColor(Qt::black);
}

void TestAboutDialog::itsColoursStayReadable()
{
    QFETCH(const QColor, desktop);
    QApplication::setPalette(QPalette(desktop));

    const AboutDialog dialog;

    const QColor ground = dialog.palette().color(QPalette::Window);
    QVERIFY(contrast(ground, QColor(0x00, 0x70, 0xC4)) > 4.5);
    QVERIFY(contrast(ground, QColor(0x0D, 0x21, 0x49)) > 4.5);
    for (const auto *label : dialog.findChildren<QLabel *>())
        QVERIFY(contrast(ground, label->palette().color(QPalette::WindowText)) > 4.5);
    const QPalette button = okButton(dialog)->palette();
    QVERIFY(contrast(button.color(QPalette::Button), button.color(QPalette::ButtonText)) > 4.5);
    QCOMPARE(ground == desktop, desktop == QColor(Qt::white)); // what is light enough is kept
}

void TestAboutDialog::textsAreTranslated()
{
    MarkingTranslator translator("AboutDialog");
    QCoreApplication::installTranslator(&translator);
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    const AboutDialog dialog;
    QCOMPARE(dialog.windowTitle(), u"[About Kelpwharf]"_s);
    int words = 0;
    for (const QString &text : shown(dialog)) {
        if (!text.startsWith(u"<a "_s)) {
            QVERIFY2(text.startsWith(u'['), qPrintable(text));
            ++words;
        }
    }
    QCOMPARE(words, 3);
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestAboutDialog test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_AboutDialog.moc"
