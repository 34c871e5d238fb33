// Measures how well each text can be read, from a picture of its window, in the colours of several desktops.
//
// The window is drawn at three times its size, so that strokes are thick enough to have their full colour
// somewhere. In the rectangle of each text the commonest colour is its ground. What differs from it is cut
// at the gaps into lines and words; a word's contrast is that of its best pixel, as the pixels at the edges
// of letters are mixtures, and a text's contrast is that of its worst word. A text without a word is taken
// for invisible. Disabled controls are left out: they are meant to stand back.

#include "dialogs/JobDialog.h"
#include "panel/VfdPanel.h"
#include "support/Contrast.h"
#include "support/DialogVisit.h"
#include "support/EveryWindow.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"
#include "update/AboutDialog.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QGroupBox>
#include <QHash>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QStyleFactory>
#include <QStyleOptionButton>
#include <QStyleOptionComboBox>
#include <QStyleOptionGroupBox>
#include <QTabBar>
#include <QTabWidget>
#include <QTableWidget>
#include <QTest>
#include <QTextBrowser>
#include <QToolButton>

#include <algorithm>
#include <memory>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr int kScale = 3;
constexpr double kReadable = 4.5;
constexpr double kInk = 1.03;      ///< what differs more from its ground is ink
constexpr double kShading = 1.4;   ///< but not on buttons, tabs and headers, which are shaded
constexpr int kGap = 3 * kScale;   ///< between two words
constexpr int kWordWidth = kScale; ///< a stroke has that much

// The fixed colours that do not reach it by themselves, with what they reach at least. All others must. What
// is not lit on the display stands back like a disabled control.
constexpr double kNeverRun = 3.6; ///< #808080: 3.95 on white, 3.7 on the shade of every other row
constexpr double kVersion = 2.6;  ///< #2e8f86: 3.4 on a light status bar, 3.5 on a dark, 2.7 on a beige one
constexpr double kPanelCaption = 2.8; ///< #1c666a: 2.97 on the display's glass

/** A text in a window: where it stands, and how well it must be readable. */
struct Text
{
    QString what;
    QRect rect;
    double wanted = kReadable;
    double ink = kInk;
};

QImage pictureOf(QWidget *widget)
{
    QImage picture(widget->size() * kScale, QImage::Format_RGB32);
    picture.setDevicePixelRatio(kScale);
    widget->render(&picture);
    return picture;
}

QRgb commonestColour(const QImage &picture, const QRect &rect)
{
    QHash<QRgb, int> counts;
    for (int y = rect.top(); y <= rect.bottom(); ++y) {
        for (int x = rect.left(); x <= rect.right(); ++x)
            ++counts[picture.pixel(x, y)];
    }
    QRgb commonest = 0;
    int most = 0;
    for (auto it = counts.cbegin(); it != counts.cend(); ++it) {
        if (it.value() > most) {
            most = it.value();
            commonest = it.key();
        }
    }
    return commonest;
}

/** The contrast of each pixel with the ground, row by row. */
QList<QList<double>> contrasts(const QImage &picture, const QRect &rect)
{
    const QColor ground(commonestColour(picture, rect));
    QHash<QRgb, double> known;
    QList<QList<double>> rows;
    for (int y = rect.top(); y <= rect.bottom(); ++y) {
        QList<double> row;
        for (int x = rect.left(); x <= rect.right(); ++x) {
            const QRgb colour = picture.pixel(x, y);
            if (!known.contains(colour))
                known.insert(colour, contrast(QColor(colour), ground));
            row += known.value(colour);
        }
        rows += row;
    }
    return rows;
}

/** The contrast of the worst word between two rows; infinite if there is none. */
double worstWord(const QList<QList<double>> &rows, qsizetype top, qsizetype bottom, double ink)
{
    double worst = std::numeric_limits<double>::infinity();
    double best = 0; // of the word that is being gone through
    qsizetype start = -1;
    qsizetype end = -1;
    const qsizetype width = rows.first().size();
    for (qsizetype x = 0; x < width + kGap + 1; ++x) {
        double column = 1;
        for (qsizetype y = top; x < width && y < bottom; ++y)
            column = std::max(column, rows.at(y).at(x));
        if (column > ink) {
            start = start < 0 ? x : start;
            end = x;
            best = std::max(best, column);
        } else if (start >= 0 && x - end > kGap) {
            if (end - start + 1 >= kWordWidth)
                worst = std::min(worst, best);
            start = -1;
            best = 0;
        }
    }
    return worst;
}

/** The contrast of the worst word in a part of a window; 1 if no word can be seen. */
double measured(const QImage &picture, const QRect &place, double ink = kInk)
{
    const QRect rect = QRect(place.topLeft() * kScale, place.size() * kScale) & picture.rect();
    if (rect.isEmpty())
        return 1;
    const QList<QList<double>> rows = contrasts(picture, rect);
    const auto hasInk = [&rows, ink](qsizetype y) {
        return std::any_of(rows.at(y).cbegin(), rows.at(y).cend(), [ink](double one) { return one > ink; });
    };
    double worst = std::numeric_limits<double>::infinity();
    qsizetype top = -1;
    for (qsizetype y = 0; y <= rows.size(); ++y) {
        if (y < rows.size() && hasInk(y)) {
            top = top < 0 ? y : top;
        } else if (top >= 0) {
            worst = std::min(worst, worstWord(rows, top, y, ink));
            top = -1;
        }
    }
    return worst == std::numeric_limits<double>::infinity() ? 1 : worst;
}

// Where the texts stand.

QString named(const QWidget *widget, const QString &text)
{
    return u"%1 %2 '%3'"_s.arg(QLatin1StringView(widget->metaObject()->className()), widget->objectName(),
                               text.left(30));
}

QRect inset(const QRect &rect, int by) { return rect.adjusted(by, by, -by, -by); }

/** Where a line of text stands that is centred in the rectangle, without whatever is beside it. */
QRect centred(const QWidget *widget, const QRect &rect, const QString &text)
{
    return widget->style()->itemTextRect(widget->fontMetrics(), rect, Qt::AlignCenter | Qt::TextShowMnemonic,
                                         true, text);
}

bool isShaded(const QWidget *widget)
{
    return qobject_cast<const QPushButton *>(widget) || qobject_cast<const QToolButton *>(widget) ||
           qobject_cast<const QComboBox *>(widget) || qobject_cast<const QTabBar *>(widget) ||
           qobject_cast<const QHeaderView *>(widget);
}

/** Gathers the texts of a window, each with its place in it. */
class Texts
{
public:
    explicit Texts(QWidget *ofWindow) : window(ofWindow)
    {
        for (const auto *widget : window->findChildren<QWidget *>()) {
            if (widget->isVisible() && widget->isEnabled() && widget->window() == window)
                addWidget(widget);
        }
    }

    QList<Text> texts = {};

private:
    void add(const QWidget *widget, const QString &text, const QRect &rect, double wanted = kReadable)
    {
        const QRect seen = rect & widget->rect();
        if (!text.trimmed().isEmpty() && !seen.isEmpty())
            texts += {named(widget, text), seen.translated(widget->mapTo(window, QPoint())), wanted,
                      isShaded(widget) ? kShading : kInk};
    }

    void addWidget(const QWidget *widget)
    {
        if (const auto *label = qobject_cast<const QLabel *>(widget))
            add(label, label->text(), inset(label->contentsRect(), 1),
                label->objectName() == "versionLabel"_L1 ? kVersion : kReadable);
        else if (const auto *button = qobject_cast<const QAbstractButton *>(widget))
            addButton(button);
        else if (const auto *edit = qobject_cast<const QLineEdit *>(widget))
            add(edit, edit->text().isEmpty() ? edit->placeholderText() : edit->text(),
                inset(edit->rect(), 3));
        else if (const auto *combo = qobject_cast<const QComboBox *>(widget))
            addCombo(combo);
        else if (const auto *group = qobject_cast<const QGroupBox *>(widget))
            addGroup(group);
        else if (const auto *tabs = qobject_cast<const QTabBar *>(widget))
            for (int i = 0; i < tabs->count(); ++i)
                add(tabs, tabs->tabText(i), centred(tabs, tabs->tabRect(i), tabs->tabText(i)));
        else if (const auto *bar = qobject_cast<const QMenuBar *>(widget))
            for (QAction *entry : bar->actions())
                add(bar, entry->text(), inset(bar->actionGeometry(entry), 2));
        else
            addContent(widget);
    }

    void addButton(const QAbstractButton *button)
    {
        QStyleOptionButton option;
        option.initFrom(button);
        QRect rect = button->rect();
        if (qobject_cast<const QCheckBox *>(button))
            rect = button->style()->subElementRect(QStyle::SE_CheckBoxContents, &option, button);
        else if (qobject_cast<const QRadioButton *>(button))
            rect = button->style()->subElementRect(QStyle::SE_RadioButtonContents, &option, button);
        else
            rect = centred(button, rect, button->text());
        add(button, button->text(), rect);
    }

    void addCombo(const QComboBox *combo)
    {
        QStyleOptionComboBox option;
        option.initFrom(combo);
        const QRect field =
            combo->style()->subControlRect(QStyle::CC_ComboBox, &option, QStyle::SC_ComboBoxEditField, combo);
        add(combo, combo->currentText(), inset(field, 2));
    }

    void addGroup(const QGroupBox *group)
    {
        QStyleOptionGroupBox option;
        option.initFrom(group);
        option.text = group->title();
        option.textAlignment = group->alignment();
        option.subControls = QStyle::SC_GroupBoxLabel;
        add(group, group->title(),
            group->style()->subControlRect(QStyle::CC_GroupBox, &option, QStyle::SC_GroupBoxLabel, group));
    }

    void addContent(const QWidget *widget)
    {
        if (const auto *table = qobject_cast<const QTableWidget *>(widget)) {
            for (int row = 0; row < table->rowCount(); ++row)
                for (int column = 0; column < table->columnCount(); ++column)
                    addCell(table, row, column);
        } else if (const auto *header = qobject_cast<const QHeaderView *>(widget)) {
            for (int i = 0; i < header->count(); ++i)
                add(header, header->model()->headerData(i, header->orientation()).toString(),
                    inset({header->sectionViewportPosition(i), 0, header->sectionSize(i), header->height()},
                          4));
        } else if (const auto *list = qobject_cast<const QListWidget *>(widget)) {
            for (int row = 0; row < list->count(); ++row)
                add(list->viewport(), list->item(row)->text(),
                    inset(list->visualItemRect(list->item(row)), 2));
        } else if (const auto *log = qobject_cast<const QPlainTextEdit *>(widget)) {
            add(log->viewport(), log->toPlainText(), log->viewport()->rect());
        } else if (const auto *browser = qobject_cast<const QTextBrowser *>(widget)) {
            add(browser->viewport(), browser->toPlainText(), browser->viewport()->rect());
        } else if (const auto *panel = qobject_cast<const VfdPanel *>(widget)) {
            const PanelLayout zones = PanelLayout::forWidget(panel->rect());
            add(panel, u"footer"_s, zones.footer.toAlignedRect());
            QRectF caption = zones.timeline;
            caption.setSize({42, 14});
            add(panel, u"TODAY"_s, caption.toAlignedRect(), kPanelCaption);
        }
    }

    void addCell(const QTableWidget *table, int row, int column)
    {
        const QTableWidgetItem *item = table->item(row, column);
        const bool neverRan = item->foreground().color() == QColor(0x80, 0x80, 0x80) && !item->isSelected();
        add(table->viewport(), item->text(), inset(table->visualItemRect(item), 3),
            neverRan ? kNeverRun : kReadable);
    }

    QWidget *window;
};

// The colours of desktops.

struct Colours
{
    QColor window, text, base, alternate, button, highlight, highlightedText, link;
};

QPalette paletteOf(const Colours &colours)
{
    QPalette palette(colours.button, colours.window);
    for (const auto role :
         {QPalette::WindowText, QPalette::Text, QPalette::ButtonText, QPalette::ToolTipText})
        palette.setColor(role, colours.text);
    palette.setColor(QPalette::Base, colours.base);
    palette.setColor(QPalette::AlternateBase, colours.alternate);
    palette.setColor(QPalette::ToolTipBase, colours.base);
    palette.setColor(QPalette::Highlight, colours.highlight);
    palette.setColor(QPalette::HighlightedText, colours.highlightedText);
    palette.setColor(QPalette::Link, colours.link);
    return palette;
}

QPalette dark()
{
    QPalette palette = paletteOf({.window = QColor(42, 46, 50),
                                  .text = QColor(252, 252, 252),
                                  .base = QColor(27, 30, 32),
                                  .alternate = QColor(35, 38, 41),
                                  .button = QColor(49, 54, 59),
                                  .highlight = QColor(61, 174, 233),
                                  .highlightedText = Qt::black,
                                  .link = QColor(29, 153, 243)});
    palette.setColor(QPalette::PlaceholderText, QColor(0, 0, 0, 128)); // not all desktops set it
    return palette;
}

QPalette black()
{
    return paletteOf({.window = Qt::black,
                      .text = Qt::white,
                      .base = Qt::black,
                      .alternate = QColor(0x18, 0x18, 0x18),
                      .button = QColor(0x20, 0x20, 0x20),
                      .highlight = Qt::yellow,
                      .highlightedText = Qt::black,
                      .link = Qt::cyan});
}

QPalette light() { return std::unique_ptr<QStyle>(QStyleFactory::create(u"Fusion"_s))->standardPalette(); }

QPalette beige()
{
    return paletteOf({.window = QColor(0xDD, 0xD6, 0xC4),
                      .text = Qt::black,
                      .base = QColor(0xE8, 0xE2, 0xD4),
                      .alternate = QColor(0xDD, 0xD6, 0xC4),
                      .button = QColor(0xDD, 0xD6, 0xC4),
                      .highlight = QColor(0x40, 0x40, 0x80),
                      .highlightedText = Qt::white,
                      .link = Qt::blue});
}

/** The worst contrast of all texts in a part of a window, which is brought up. */
double worstIn(QWidget *window, const QWidget *part)
{
    window->show();
    if (!QTest::qWaitForWindowExposed(window))
        qFatal("%s does not come up", qPrintable(window->windowTitle()));
    const QImage picture = pictureOf(window);
    const QRect place(part->mapTo(window, QPoint()), part->size());
    double worst = std::numeric_limits<double>::infinity();
    for (const Text &text : Texts(window).texts) {
        if (place.contains(text.rect))
            worst = std::min(worst, measured(picture, text.rect, text.ink));
    }
    return worst == std::numeric_limits<double>::infinity() ? 0 : worst;
}

/** Measures every text in a window that has no focus to show; notes the worst of those that must be readable.
 */
void measure(QWidget *window, const QString &where, double *worst, QString *worstText, int *seen)
{
    if (QWidget *focused = window->focusWidget())
        focused->clearFocus(); // its frame and its cursor are no text
    const QImage picture = pictureOf(window);
    for (const Text &text : Texts(window).texts) {
        const double found = measured(picture, text.rect, text.ink);
        QVERIFY2(found >= text.wanted,
                 qPrintable(u"%1, %2: %3 to 1"_s.arg(where, text.what, QString::number(found, 'f', 2))));
        ++*seen;
        if (text.wanted >= kReadable && found < *worst) {
            *worst = found;
            *worstText = where + u", "_s + text.what;
        }
    }
}

} // namespace

class TestContrast : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void theMeasureIsRight_data();
    void theMeasureIsRight();
    void aBrokenPaletteIsSeen_data();
    void aBrokenPaletteIsSeen();
    void ownColoursAreNeededInTheDark();
    void everyTextIsReadable_data();
    void everyTextIsReadable();
    void menusAreReadable_data();
    void menusAreReadable();
    void theTableFollowsTheDesktop();
};

void TestContrast::init() { QApplication::setStyle(u"Fusion"_s); }

void TestContrast::cleanup() { QApplication::setPalette(light()); }

void TestContrast::theMeasureIsRight_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<double>("expected");
    const auto row = [](const char *what, const QString &text, double expected) {
        QTest::newRow(what) << text << expected;
    };
    row("black", u"<span style='color:#000'>Some words</span>"_s, 21.0);
    row("the grey of those that never ran", u"<span style='color:#808080'>Some words</span>"_s, 3.95);
    row("the red of failures", u"<span style='color:#c03020'>Some words</span>"_s, 5.7);
    row("one pale word of many", u"Some words and <span style='color:#bbb'>pale</span> ones"_s, 1.92);
    row("one pale line of many", u"Some words<br><span style='color:#bbb'>and pale ones</span>"_s, 1.92);
    row("one word that is nearly gone", u"Some words and <span style='color:#f4f4f4'>pale</span> ones"_s,
        1.1);
    row("as white as its ground", u"<span style='color:#fff'>Some words</span>"_s, 1.0);
}

void TestContrast::theMeasureIsRight()
{
    QFETCH(const QString, text);
    QLabel label(text);
    label.setPalette(QPalette(Qt::white));
    label.show();
    QFETCH(const double, expected);
    const double found = measured(pictureOf(&label), label.rect());
    QVERIFY2(qAbs(found - expected) < 0.05 * expected, qPrintable(QString::number(found)));
}

void TestContrast::aBrokenPaletteIsSeen_data()
{
    QTest::addColumn<QByteArray>("part");
    for (const char *part : {"table", "logView", "addButton", "autoCheck", "statusLabel"})
        QTest::newRow(part) << QByteArray(part);
}

/** Texts in the grey of a shadow must not pass. */
void TestContrast::aBrokenPaletteIsSeen()
{
    QFETCH(const QByteArray, part);
    TestJobs::store({TestJobs::lastRunAgo(u"one"_s, 60)});
    TestWindow window;
    auto *widget = window.part<QWidget>(part.constData());
    QVERIFY(worstIn(&window, widget) >= kReadable);
    if (auto *log = qobject_cast<QPlainTextEdit *>(widget))
        log->appendHtml(u"<span style='color:#304040'>a line that is hard to read</span>"_s);
    QPalette broken = widget->palette();
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        broken.setColor(role, QColor(0xB0, 0xB0, 0xB0));
    widget->setPalette(broken);
    QVERIFY(worstIn(&window, widget) < kReadable);
}

/** With a dark desktop's colours alone none of these could be read, so the measure looks at the right places.
 */
void TestContrast::ownColoursAreNeededInTheDark()
{
    QApplication::setPalette(dark());
    const auto check = [](QWidget *window, QWidget *part) {
        QVERIFY(worstIn(window, part) >= kReadable);
        const QString style = part->styleSheet(); // it would hold on to the palette
        part->setStyleSheet({});
        part->setPalette(QApplication::palette());
        part->setStyleSheet(style);
        QVERIFY2(worstIn(window, part) < kReadable, qPrintable(part->objectName()));
    };
    SyncJob failed = TestJobs::lastRunAgo(u"two"_s, 60);
    failed.lastOk = false;
    TestJobs::store({TestJobs::lastRunAgo(u"one"_s, 60), failed});
    TestWindow window;
    check(&window, window.part<QTableWidget>("table"));

    SyncJob job = TestJobs::named(u"one"_s);
    job.scheduleMode = Rules;
    job.rules = {ScheduleRule(), ScheduleRule()};
    job.rules.last().days = 0;
    JobDialog editor(job, nullptr);
    editor.findChild<QTabWidget *>()->setCurrentIndex(3);
    check(&editor, partOf<QListWidget>(&editor, "ruleList"));
    check(&editor, partOf<QLabel>(&editor, "schedulePreview"));
    editor.findChild<QTabWidget *>()->setCurrentIndex(1);
    check(&editor, partOf<QLineEdit>(&editor, "excludeEdit"));

    AboutDialog about;
    check(&about, &about);
}

void TestContrast::everyTextIsReadable_data()
{
    QTest::addColumn<QPalette>("desktop");
    QTest::newRow("light") << light();
    QTest::newRow("beige") << beige();
    QTest::newRow("dark") << dark();
    QTest::newRow("black") << black();
}

void TestContrast::everyTextIsReadable()
{
    QFETCH(const QPalette, desktop);
    QApplication::setPalette(desktop);
    double worst = 21;
    QString worstText;
    int seen = 0;
    visitEveryWindow(
        [&](QWidget *window, const QString &where) { measure(window, where, &worst, &worstText, &seen); });
    QVERIFY(seen > 200);
    qInfo("%d texts; the worst has %.2f to 1: %s", seen, worst, qPrintable(worstText));
}

void TestContrast::menusAreReadable_data() { everyTextIsReadable_data(); }

void TestContrast::menusAreReadable()
{
    QFETCH(const QPalette, desktop);
    QApplication::setPalette(desktop);
    TestJobs::store({});
    TestWindow window;
    window.show();
    const int beforeText = QApplication::style()->pixelMetric(QStyle::PM_IndicatorWidth) + 8; // boxes to tick
    int seen = 0;
    for (auto *menu : window.findChildren<QMenu *>()) {
        menu->popup(window.mapToGlobal(QPoint()));
        const QImage picture = pictureOf(menu);
        for (QAction *entry : menu->actions()) {
            if (entry->isSeparator())
                continue;
            QRect rect = inset(menu->actionGeometry(entry), 2);
            rect.setLeft(rect.left() + beforeText);
            const double found = measured(picture, rect);
            QVERIFY2(found >= kReadable, qPrintable(u"%1: %2"_s.arg(entry->text()).arg(found)));
            ++seen;
        }
        menu->close();
    }
    QVERIFY(seen >= 15);
}

void TestContrast::theTableFollowsTheDesktop()
{
    SyncJob failed = TestJobs::lastRunAgo(u"one"_s, 60);
    failed.lastOk = false;
    TestJobs::store({TestJobs::lastRunAgo(u"two"_s, 60), failed});
    QApplication::setPalette(light());
    TestWindow window;
    window.show();
    const auto *table = window.part<QTableWidget>("table");
    const QColor own = table->palette().color(QPalette::Base);
    QCOMPARE(own, light().color(QPalette::Base));
    const auto contrastOfResult = [&] {
        const QRect cell = inset(table->visualItemRect(window.item(1, LastResultColumn)), 3);
        return measured(pictureOf(&window), cell.translated(table->viewport()->mapTo(&window, QPoint())));
    };
    QVERIFY(contrastOfResult() >= kReadable);
    QApplication::setPalette(dark());
    QVERIFY(contrastOfResult() >= kReadable);
    QApplication::setPalette(light());
    QCOMPARE(table->palette().color(QPalette::Base), own);
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    VfdPanel::nameFontStandIns();
    TestContrast test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Contrast.moc"
