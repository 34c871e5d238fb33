#include "panel/VfdPanel.h"
#include "support/EveryWindow.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QAbstractButton>
#include <QAbstractSpinBox>
#include <QAccessible>
#include <QApplication>
#include <QComboBox>
#include <QGroupBox>
#include <QKeySequence>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QRadioButton>
#include <QSet>
#include <QTabBar>
#include <QTableWidget>
#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

/** As it is read out: on some platforms a combo box has its value for a name, and a label tells what it is.
 */
QString nameOf(QWidget *widget)
{
    QAccessibleInterface *accessible = QAccessible::queryAccessibleInterface(widget);
    if (qobject_cast<QComboBox *>(widget)) {
        for (const auto &[other, relation] : accessible->relations(QAccessible::Label))
            return other->text(QAccessible::Name);
    }
    return accessible->text(QAccessible::Name);
}

/** Whether it is a part of another control, which gets the focus in its place. */
bool isInnerPart(const QWidget *widget)
{
    const QWidget *parent = widget->parentWidget();
    return qobject_cast<const QAbstractSpinBox *>(parent) || qobject_cast<const QComboBox *>(parent);
}

/** What the Tab key can reach in sight, in no special order. */
QList<QWidget *> controlsIn(const QWidget *window)
{
    QList<QWidget *> controls;
    for (QWidget *widget : window->findChildren<QWidget *>()) {
        const bool takesTab = (widget->focusPolicy() & Qt::TabFocus) == Qt::TabFocus;
        if (takesTab && widget->isVisible() && widget->isEnabled() && !isInnerPart(widget) &&
            !widget->focusProxy() && widget->window() == window)
            controls += widget;
    }
    return controls;
}

QRect placeOf(const QWidget *widget) { return {widget->mapTo(widget->window(), QPoint()), widget->size()}; }

/** Whether the eye meets the first before the second: in the same row it stands to the left, else above. */
bool isReadBefore(const QWidget *first, const QWidget *second)
{
    const QRect one = placeOf(first);
    const QRect other = placeOf(second);
    const bool sameRow = one.top() <= other.center().y() && other.top() <= one.center().y();
    return sameRow ? one.left() < other.left() : one.top() < other.top();
}

QString described(const QWidget *widget)
{
    return QLatin1StringView(widget->metaObject()->className()) + u' ' + widget->objectName();
}

/** The controls in the order in which the Tab key gives them the focus, from the first to the first. */
QList<QWidget *> tabbedThrough(QWidget *window, QWidget *first)
{
    QList<QWidget *> order;
    first->setFocus();
    QWidget *current = first;
    while (current && !order.contains(current) && order.size() < 200) {
        order += current;
        QTest::keyClick(current, Qt::Key_Tab);
        if (window->focusWidget() == current)
            QTest::keyClick(current, Qt::Key_Tab); // a label goes to its link first
        current = window->focusWidget();
        if (current && isInnerPart(current))
            current = current->parentWidget();
    }
    return order;
}

/** Whether it is one of several radio buttons, another of which is among the controls: they take turns. */
bool isReachedByArrows(const QWidget *control, const QList<QWidget *> &order)
{
    return qobject_cast<const QRadioButton *>(control) &&
           std::any_of(order.cbegin(), order.cend(), [control](const QWidget *other) {
               return qobject_cast<const QRadioButton *>(other) &&
                      other->parentWidget() == control->parentWidget();
           });
}

QStringList shortcutTexts(const QWidget *window)
{
    QStringList texts;
    for (const auto *button : window->findChildren<QAbstractButton *>()) {
        if (button->isVisible())
            texts += button->text();
    }
    for (const auto *label : window->findChildren<QLabel *>()) {
        if (label->isVisible() && label->buddy())
            texts += label->text();
    }
    for (const auto *group : window->findChildren<QGroupBox *>()) {
        if (group->isVisible())
            texts += group->title();
    }
    for (const auto *bar : window->findChildren<QTabBar *>()) {
        for (int i = 0; i < bar->count(); ++i)
            texts += bar->tabText(i);
    }
    for (const auto *bar : window->findChildren<QMenuBar *>()) {
        for (const QAction *entry : bar->actions())
            texts += entry->text();
    }
    return texts;
}

/** The first letter that two of the texts have for a shortcut; empty if there is none. */
QString clash(const QStringList &texts)
{
    QSet<QString> taken;
    for (const QString &text : texts) {
        QString key = QKeySequence::mnemonic(text).toString();
        if (key.isEmpty())
            continue;
        if (taken.contains(key))
            return key;
        taken += key;
    }
    return {};
}

} // namespace

class TestAccessible : public QObject
{
    Q_OBJECT

private slots:
    void everyControlHasANameOfItsOwn();
    void noTwoShortcutsClash();
    void theTabKeyFollowsTheEye();
    void theTableLetsTheTabKeyOut();
    void theTablesBoxesSayWhatTheyEnable();
    void thePanelSaysItsStateInWords_data();
    void thePanelSaysItsStateInWords();
    void thePanelAnnouncesNewsOnly();
};

void TestAccessible::everyControlHasANameOfItsOwn()
{
    int seen = 0;
    visitEveryWindow([&seen](QWidget *window, const QString &where) {
        QSet<QString> names;
        for (QWidget *control : controlsIn(window)) {
            const QString name = nameOf(control);
            const QString what = u"%1: %2 is called '%3'"_s.arg(where, described(control), name);
            QVERIFY2(!name.trimmed().isEmpty() && !name.contains(u'<'), qPrintable(what));
            QVERIFY2(!names.contains(name), qPrintable(what + u", as another one is"_s));
            names += name;
            ++seen;
        }
    });
    QVERIFY(seen > 100);
}

void TestAccessible::noTwoShortcutsClash()
{
    QCOMPARE(clash({u"&Add"_s, u"E&dit"_s, u"&All"_s}), u"Alt+A"_s); // it would be seen
    int menus = 0;
    visitEveryWindow([&menus](const QWidget *window, const QString &where) {
        const QString twice = clash(shortcutTexts(window));
        QVERIFY2(twice.isEmpty(), qPrintable(where + u": "_s + twice));
        for (const auto *menu : window->findChildren<QMenu *>()) {
            QStringList texts;
            for (const QAction *entry : menu->actions())
                texts += entry->text();
            QVERIFY2(clash(texts).isEmpty(), qPrintable(where + u": "_s + clash(texts)));
            ++menus;
        }
    });
    QVERIFY(menus >= 3);
}

void TestAccessible::theTabKeyFollowsTheEye()
{
    visitEveryWindow([](QWidget *window, const QString &where) {
        QList<QWidget *> controls = controlsIn(window);
        QVERIFY2(!controls.isEmpty(), qPrintable(where));
        QWidget *first = controls.first();
        for (QWidget *control : std::as_const(controls)) {
            if (isReadBefore(control, first))
                first = control;
        }
        const QList<QWidget *> order = tabbedThrough(window, first);
        for (qsizetype i = 1; i < order.size(); ++i)
            QVERIFY2(isReadBefore(order.at(i - 1), order.at(i)),
                     qPrintable(u"%1: %2 comes before %3"_s.arg(where, described(order.at(i - 1)),
                                                                described(order.at(i)))));
        for (QWidget *control : std::as_const(controls)) {
            QVERIFY2(order.contains(control) || isReachedByArrows(control, order),
                     qPrintable(u"%1: %2 is left out"_s.arg(where, described(control))));
        }
    });
}

void TestAccessible::theTableLetsTheTabKeyOut()
{
    TestJobs::store({TestJobs::named(u"one"_s), TestJobs::named(u"two"_s)});
    TestWindow window;
    window.show();
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    auto *table = window.part<QWidget>("table");
    table->setFocus();
    QTest::keyClick(table, Qt::Key_Tab);
    QCOMPARE(window.focusWidget()->objectName(), u"addButton"_s);
    QTest::keyClick(window.focusWidget(), Qt::Key_Backtab);
    QCOMPARE(window.focusWidget(), table);
    QTest::keyClick(table, Qt::Key_Down);
    QVERIFY(window.item(1, JobColumn)->isSelected());
}

void TestAccessible::theTablesBoxesSayWhatTheyEnable()
{
    TestJobs::store({TestJobs::named(u"one"_s), TestJobs::named(u"two"_s)});
    TestWindow window;
    QAccessibleInterface *table = QAccessible::queryAccessibleInterface(window.part<QWidget>("table"));
    QCOMPARE(table->tableInterface()->cellAt(0, EnabledColumn)->text(QAccessible::Name), u"Enable one"_s);
    QCOMPARE(table->tableInterface()->cellAt(1, EnabledColumn)->text(QAccessible::Name), u"Enable two"_s);
}

void TestAccessible::thePanelSaysItsStateInWords_data()
{
    QTest::addColumn<std::function<void(VfdPanel *)>>("tell");
    QTest::addColumn<QString>("words");
    using Tell = std::function<void(VfdPanel *)>;
    const auto row = [](const char *what, const Tell &tell, const QString &words) {
        QTest::newRow(what) << tell << words;
    };
    const QDateTime monday(QDate(2026, 3, 2), QTime(6, 30));

    row(
        "new", [](VfdPanel *) {}, u"AUTO is off. Offline. No last run."_s);
    row(
        "with a job",
        [](VfdPanel *panel) {
            panel->setJobName(u"Talks"_s);
            panel->setHost(u"ftp.example.com"_s);
        },
        u"AUTO is off. Job: TALKS. Offline. No last run."_s);
    row(
        "waiting",
        [monday](VfdPanel *panel) {
            panel->setMode(VfdPanel::Auto);
            panel->setNextRun(monday);
            panel->setLastRun(monday.addSecs(-60), u"3 new"_s);
        },
        u"AUTO is on. Offline. Next run: Monday 06:30. Last run: 06:29, 3 NEW."_s);
    row(
        "AUTO off hides the next run", [monday](VfdPanel *panel) { panel->setNextRun(monday); },
        u"AUTO is off. Offline. No last run."_s);
    row(
        "connecting",
        [](VfdPanel *panel) {
            panel->setLink(VfdPanel::Connecting, u"soon"_s);
            panel->setHost(u"ftp.example.com"_s);
        },
        u"AUTO is off. Connecting to ftp.example.com. No last run."_s);
    row(
        "connected", [](VfdPanel *panel) { panel->setLink(VfdPanel::Connected, {}); },
        u"AUTO is off. Connected. No last run."_s);
    row(
        "running",
        [](VfdPanel *panel) {
            panel->setMode(VfdPanel::Manual);
            panel->setJobName(u"100%1"_s);
            panel->setHost(u"%2"_s);
            panel->setRunning(true);
            panel->setLink(VfdPanel::Transferring, {});
            panel->setCurrentFile(u"/a/%1.mp3"_s);
        },
        u"Started by hand. Running: 100%1. Transferring from %2. File: /a/%1.mp3. No last run."_s);
    row(
        "run ended",
        [](VfdPanel *panel) {
            panel->setRunning(true);
            panel->setCurrentFile(u"/a/1.mp3"_s);
            panel->setRunning(false);
        },
        u"AUTO is off. Offline. No last run."_s);
    row(
        "failed", [](VfdPanel *panel) { panel->setLink(VfdPanel::Error, u"Login refused"_s); },
        u"AUTO is off. Error: Login refused. No last run."_s);
}

void TestAccessible::thePanelSaysItsStateInWords()
{
    QFETCH(const std::function<void(VfdPanel *)>, tell);
    VfdPanel panel;
    tell(&panel);
    QAccessibleInterface *accessible = QAccessible::queryAccessibleInterface(&panel);
    QTEST(accessible->text(QAccessible::Description), "words");
}

/** Each setting of a description is announced, and so costs something. */
void TestAccessible::thePanelAnnouncesNewsOnly()
{
    VfdPanel panel;
    panel.setRunning(true);
    panel.setCurrentFile(u"/a/1.mp3"_s);
    const QString words = panel.accessibleDescription();
    QVERIFY(words.contains(u"/a/1.mp3"_s));
    for (int i = 0; i < 10; ++i) {
        panel.setCurrentFile(u"/a/1.mp3"_s);
        panel.setMode(VfdPanel::Off);
        panel.setRate(1000.0 * i);
        panel.setFileProgress(i / 10.0);
        panel.grab();
    }
    QCOMPARE(static_cast<const void *>(panel.accessibleDescription().constData()),
             static_cast<const void *>(words.constData())); // not an equal one, but the very same
    panel.setCurrentFile(u"/a/2.mp3"_s);
    QVERIFY(panel.accessibleDescription().contains(u"/a/2.mp3"_s));
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestAccessible test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Accessible.moc"
