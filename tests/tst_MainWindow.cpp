#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QFile>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QScrollBar>
#include <QSettings>
#include <QStatusBar>
#include <QSystemTrayIcon>
#include <QTableWidget>
#include <QTest>
#include <QThread>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

const QString kProgram = u"Kelpwharf"_s;
constexpr int kPatienceMs = 10000; // only a test that fails waits for so long

QSettings settingsStore()
{
    return QSettings(QSettings::IniFormat, QSettings::UserScope, u"Orrinvale"_s, kProgram);
}

/** What a layout holds, in its order: "addButton", "gap 12", "stretch 1". */
QStringList contentsOf(const QBoxLayout *layout)
{
    QStringList contents;
    for (int i = 0; i < layout->count(); ++i) {
        QLayoutItem *item = layout->itemAt(i);
        if (item->widget())
            contents += item->widget()->objectName();
        else if (layout->stretch(i) > 0)
            contents += u"stretch %1"_s.arg(layout->stretch(i));
        else
            contents += u"gap %1"_s.arg(item->sizeHint().width());
    }
    return contents;
}

/** An entry of a menu as "name|text", with "[ ]" or "[x]" in front if it can be checked. */
QString described(const QAction *entry)
{
    if (entry->isSeparator())
        return u"---"_s;
    if (!entry->isCheckable())
        return entry->text();
    return (entry->isChecked() ? u"[x] "_s : u"[ ] "_s) + entry->objectName() + u'|' + entry->text();
}

/** Runs the event loop until the program ends it; -1 if it does not. */
int runToTheEnd()
{
    QTimer patience;
    QObject::connect(&patience, &QTimer::timeout, &patience, [] { QCoreApplication::exit(-1); });
    patience.start(kPatienceMs);
    return QCoreApplication::exec();
}

} // namespace

class TestMainWindow : public QObject
{
    Q_OBJECT

public:
    explicit TestMainWindow(const TestSettings &settings) : file(settings) {}

private slots:
    void init();

    void titleIconAndSize();
    void tableButtonsAndLogLieAtTheFoot();
    void theButtonRow();
    void onlySyncNowIsStyled();
    void theLogView();
    void theStatusBar();
    void theTick();

    void menus_data();
    void menus();
    void noEntryHasAShortcutOrIsEverDisabled();
    void togglesStartFromTheFile_data();
    void togglesStartFromTheFile();
    void aToggleIsSavedAtOnce_data();
    void aToggleIsSavedAtOnce();

    void theFirstLineCountsTheJobs_data();
    void theFirstLineCountsTheJobs();
    void autoComesOnByItselfIfAskedTo();

    void lineHasTimeAndText();
    void colours_data();
    void colours();
    void textIsLiteral_data();
    void textIsLiteral();
    void lineBreaksStayInOneLine();
    void theLogFollowsTheNewestLine();
    void theLogIsCapped();
    void protocolIsShownOnRequest();

    void closingSavesAndEndsTheProgram_data();
    void closingSavesAndEndsTheProgram();
    void withoutATrayClosingIsForGood();
    void aMessageBoxDoesNotHoldUpTheEnd();
    void geometryComesBack();
    void damagedGeometryIsIgnored_data();
    void damagedGeometryIsIgnored();
    void theWorkerThreadEndsWithTheWindow();

private:
    bool isSaved() const { return QFile::exists(file.filePath()); }

    const TestSettings &file;
};

void TestMainWindow::init() { file.clear(); }

// The frame

void TestMainWindow::titleIconAndSize()
{
    const TestWindow window;
    QCOMPARE(window.windowTitle(), kProgram);
    QCOMPARE(window.size(), QSize(880, 760));
    const QImage icon = window.windowIcon().pixmap(QSize(512, 512)).toImage();
    QCOMPARE(icon.size(), QSize(512, 512));
    QCOMPARE(icon, QIcon(u":/Kelpwharf.png"_s).pixmap(QSize(512, 512)).toImage());
    QCOMPARE(QImage(u":/Kelpwharf.png"_s).size(), QSize(512, 512));
    QCOMPARE(QImage(u":/logo.png"_s).size(), QSize(820, 160));
}

void TestMainWindow::tableButtonsAndLogLieAtTheFoot()
{
    const TestWindow window;
    QCOMPARE(window.centralWidget()->metaObject()->className(), "QWidget");
    auto *layout = qobject_cast<QVBoxLayout *>(window.centralWidget()->layout());
    QVERIFY(layout);
    QCOMPARE(layout->contentsMargins(), QMargins(10, 10, 10, 10));
    QCOMPARE(layout->spacing(), 10);
    const int last = layout->count() - 1;
    QVERIFY(last >= 2);
    QCOMPARE(layout->itemAt(last)->widget(), window.part<QPlainTextEdit>("logView"));
    QCOMPARE(layout->stretch(last), 1);
    QVERIFY(qobject_cast<QHBoxLayout *>(layout->itemAt(last - 1)->layout()));
    QCOMPARE(layout->stretch(last - 1), 0);
    QCOMPARE(layout->itemAt(last - 2)->widget(), window.part<QTableWidget>("table"));
    QCOMPARE(layout->stretch(last - 2), 1);
}

void TestMainWindow::theButtonRow()
{
    const TestWindow window;
    auto *layout = qobject_cast<QVBoxLayout *>(window.centralWidget()->layout());
    QVERIFY(layout);
    auto *row = qobject_cast<QHBoxLayout *>(layout->itemAt(layout->count() - 2)->layout());
    QVERIFY(row);
    QCOMPARE(row->spacing(), 6);
    QCOMPARE(contentsOf(row),
             QStringList({u"addButton"_s, u"editButton"_s, u"removeButton"_s, u"gap 12"_s, u"testButton"_s,
                          u"syncButton"_s, u"stopButton"_s, u"gap 8"_s, u"autoCheck"_s, u"stretch 1"_s}));

    const struct
    {
        const char *name;
        QString text;
    } buttons[] = {{"addButton", u"Add"_s},   {"editButton", u"Edit"_s},     {"removeButton", u"Remove"_s},
                   {"testButton", u"Test"_s}, {"syncButton", u"Sync Now"_s}, {"stopButton", u"Stop"_s}};
    for (const auto &button : buttons) {
        const auto *found = window.part<QPushButton>(button.name);
        QCOMPARE(found->text(), button.text);
        QCOMPARE(found->minimumSize(), QSize(84, 32));
    }
    QCOMPARE(window.part<QCheckBox>("autoCheck")->text(), u"Auto"_s);
    QVERIFY(!window.part<QCheckBox>("autoCheck")->isChecked());
}

void TestMainWindow::onlySyncNowIsStyled()
{
    const TestWindow window;
    QCOMPARE(window.part<QPushButton>("syncButton")->styleSheet(),
             u"QPushButton { background:#1d6b4f; color:#eafff6; border:1px solid #2c9c74; border-radius:3px; "
             "font-weight:600; }QPushButton:hover:!disabled { background:#237f5d; }QPushButton:disabled { "
             "background:#2f3a36; color:#78847f; border-color:#3a453f; }"_s);
    for (const char *name : {"addButton", "editButton", "removeButton", "testButton", "stopButton"})
        QCOMPARE(window.part<QPushButton>(name)->styleSheet(), QString());
    QCOMPARE(window.part<QCheckBox>("autoCheck")->styleSheet(), QString());
    QCOMPARE(window.part<QTableWidget>("table")->styleSheet(), QString());
}

void TestMainWindow::theLogView()
{
    const TestWindow window;
    const auto *log = window.part<QPlainTextEdit>("logView");
    QVERIFY(log->isReadOnly());
    QCOMPARE(log->maximumBlockCount(), 5000);
    QCOMPARE(log->frameShape(), QFrame::NoFrame);
    QCOMPARE(log->minimumHeight(), 120);
    QCOMPARE(log->font().family(), u"Consolas"_s);
    QCOMPARE(log->font().pointSize(), 9);
    QCOMPARE(log->font().styleHint(), QFont::Monospace);
    QCOMPARE(log->font().styleStrategy(), QFont::PreferDefault);
    QCOMPARE(log->styleSheet(), u"QPlainTextEdit { background:#06080a; color:#56f0e2; border:1px solid "
                                "#14201f; border-radius:3px; padding:6px; }"_s);
}

void TestMainWindow::theStatusBar()
{
    TestWindow window;
    window.show();
    const auto *status = window.part<QLabel>("statusLabel");
    const auto *version = window.part<QLabel>("versionLabel");
    QCOMPARE(status->text(), u"Idle"_s);
    QCOMPARE(status->styleSheet(), QString());
    QCOMPARE(version->text(), u"v1.0.0"_s);
    QCOMPARE(version->styleSheet(), u"color:#2e8f86;"_s);
    QCOMPARE(status->parentWidget(), window.statusBar());
    QCOMPARE(version->parentWidget(), window.statusBar());
    // The one stretches to the other, which keeps its place at the right end.
    QTRY_VERIFY(status->width() > window.width() / 2);
    QVERIFY(version->x() > status->geometry().right());
    // A passing message covers the first and not the permanent second.
    window.statusBar()->showMessage(u"passing"_s);
    QVERIFY(!status->isVisible());
    QVERIFY(version->isVisible());
}

void TestMainWindow::theTick()
{
    const TestWindow window;
    const auto *timer = window.part<QTimer>("tickTimer");
    QCOMPARE(timer->parent(), &window);
    QCOMPARE(timer->interval(), 1000);
    QVERIFY(!timer->isSingleShot());
    QVERIFY(!timer->isActive());
}

// Menus

void TestMainWindow::menus_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QStringList>("entries");
    QTest::newRow("program") << 0 << kProgram
                             << QStringList{u"Sync &All Jobs Now"_s,
                                            u"&Stop"_s,
                                            u"---"_s,
                                            u"[ ] runOnStartAction|Switch to AUTO on launch"_s,
                                            u"[x] closeToTrayAction|Close to the system tray"_s,
                                            u"[ ] verboseAction|Show FTP protocol chatter"_s,
                                            u"---"_s,
                                            u"E&xit"_s};
    QTest::newRow("jobs") << 1 << u"&Jobs"_s
                          << QStringList{u"&Add..."_s,           u"&Edit..."_s, u"D&uplicate"_s,
                                         u"&Remove"_s,           u"---"_s,      u"&Test Connection"_s,
                                         u"Sync &Selected Now"_s};
    QTest::newRow("help") << 2 << u"&Help"_s
                          << QStringList{u"Check for &Updates..."_s,
                                         u"[x] checkUpdatesAction|Check automatically on launch"_s, u"---"_s,
                                         u"&About Kelpwharf"_s};
}

void TestMainWindow::menus()
{
    QFETCH(const int, position);
    QFETCH(const QString, title);
    const TestWindow window;
    QCOMPARE(window.menuTitles().size(), 3);
    QCOMPARE(window.menuTitles().at(position), title);
    QStringList found;
    for (const QAction *entry : window.entries(title))
        found += described(entry);
    QTEST(found, "entries");
}

void TestMainWindow::noEntryHasAShortcutOrIsEverDisabled()
{
    TestJobs::store({TestJobs::named(u"alpha"_s)});
    TestWindow window;
    window.takeWorkerAway();
    for (const bool running : {false, true}) {
        if (running)
            window.press("syncButton");
        for (const QString &title : window.menuTitles()) {
            for (const QAction *entry : window.entries(title)) {
                QVERIFY2(entry->shortcuts().isEmpty(), qPrintable(entry->text()));
                QVERIFY2(entry->isEnabled(), qPrintable(entry->text()));
            }
        }
    }
    QCOMPARE(window.cell(0, NextRunColumn), u"running..."_s);
}

void TestMainWindow::togglesStartFromTheFile_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("action");
    for (const char *value : {"true", "false"}) {
        const auto row = [value](const char *key, const char *action) {
            QTest::addRow("%s %s", key, value) << QByteArray(key) << QByteArray(action);
        };
        row("runOnStart", "runOnStartAction");
        row("minimiseToTray", "closeToTrayAction");
        row("verbose", "verboseAction");
        row("checkForUpdates", "checkUpdatesAction");
    }
}

void TestMainWindow::togglesStartFromTheFile()
{
    QFETCH(const QByteArray, key);
    QFETCH(const QByteArray, action);
    const bool on = QByteArray(QTest::currentDataTag()).endsWith("true");
    file.write("[General]\n" + key + (on ? "=true\n" : "=false\n"));
    const QByteArray before = file.read();
    const TestWindow window;
    QCOMPARE(window.part<QAction>(action.constData())->isChecked(), on);
    QCOMPARE(file.read(), before); // showing a value writes nothing
}

void TestMainWindow::aToggleIsSavedAtOnce_data() { togglesStartFromTheFile_data(); }

void TestMainWindow::aToggleIsSavedAtOnce()
{
    QFETCH(const QByteArray, key);
    QFETCH(const QByteArray, action);
    const bool on = QByteArray(QTest::currentDataTag()).endsWith("true");
    // All four start from the opposite, so that one which changes another's field is found out.
    AppSettings before;
    before.runOnStart = before.minimiseToTray = before.verbose = before.checkForUpdates = !on;
    before.updateEndpoint = u"https://updates.example/x"_s;
    TestJobs::store({TestJobs::named(u"alpha"_s)}, before);
    settingsStore().setValue("checkForUpdates", !on);
    const TestWindow window;
    file.clear();

    window.part<QAction>(action.constData())->trigger();
    QVERIFY(isSaved());
    const QSettings store = settingsStore();
    for (const char *other : {"runOnStart", "minimiseToTray", "verbose", "checkForUpdates"}) {
        const bool isIt = key == other;
        QVERIFY2(store.contains(QLatin1StringView(other)), other);
        QVERIFY2(store.value(QLatin1StringView(other)).toBool() == (isIt ? on : !on), other);
    }
    QCOMPARE(TestJobs::stored().updateEndpoint, before.updateEndpoint);
    QCOMPARE(TestJobs::stored().jobs.size(), 1);
    QCOMPARE(window.log(), QStringList({u"Ready. 1 job configured."_s}));
}

// The start

void TestMainWindow::theFirstLineCountsTheJobs_data()
{
    QTest::addColumn<int>("jobs");
    QTest::addColumn<QString>("line");
    QTest::newRow("none") << 0 << u"Ready. 0 jobs configured."_s;
    QTest::newRow("one") << 1 << u"Ready. 1 job configured."_s;
    QTest::newRow("three") << 3 << u"Ready. 3 jobs configured."_s;
}

void TestMainWindow::theFirstLineCountsTheJobs()
{
    QFETCH(const int, jobs);
    QFETCH(const QString, line);
    QList<SyncJob> list;
    for (int i = 0; i < jobs; ++i)
        list += TestJobs::named(u"job %1"_s.arg(i));
    TestJobs::store(list);
    const TestWindow window;
    QCOMPARE(window.log(), QStringList({line}));
    QCOMPARE(window.logLines().first().colour, u"#56f0e2"_s);
    QCOMPARE(window.part<QTableWidget>("table")->rowCount(), jobs);
}

void TestMainWindow::autoComesOnByItselfIfAskedTo()
{
    TestJobs::store({TestJobs::weekly(u"alpha"_s)});
    const TestWindow unasked;
    TestJobs::store({}, {.runOnStart = true});
    const TestWindow withoutJobs;
    TestJobs::store({TestJobs::weekly(u"alpha"_s)}, {.runOnStart = true});
    const TestWindow window;
    QVERIFY(!window.part<QCheckBox>("autoCheck")->isChecked());
    QCOMPARE(window.log(), QStringList({u"Ready. 1 job configured."_s}));
    QTRY_VERIFY_WITH_TIMEOUT(window.part<QCheckBox>("autoCheck")->isChecked(), kPatienceMs);
    QCOMPARE(window.log(), QStringList({u"Ready. 1 job configured."_s, u"AUTO on: 1 job scheduled."_s}));
    QVERIFY(window.part<QTimer>("tickTimer")->isActive());
    // These are older, so what they might have done has come before.
    QVERIFY(!unasked.part<QCheckBox>("autoCheck")->isChecked());
    QVERIFY(!withoutJobs.part<QCheckBox>("autoCheck")->isChecked());
    QCOMPARE(withoutJobs.log(), QStringList({u"Ready. 0 jobs configured."_s}));
}

// The log

void TestMainWindow::lineHasTimeAndText()
{
    TestWindow window;
    window.clearLog();
    const QDateTime before = QDateTime::currentDateTime();
    window.sayFromWorker(u"hello  there"_s, 0);
    const QDateTime after = QDateTime::currentDateTime();
    QCOMPARE(window.logLines().size(), 1);
    const LogLine line = window.logLines().first();
    QCOMPARE(line.stampColour, u"#2e8f86"_s);
    const QDateTime stamp = QDateTime::fromString(line.stamp, u"'['yyyy-MM-dd HH:mm:ss']'"_s);
    QVERIFY2(stamp.isValid(), qPrintable(line.stamp));
    QVERIFY(stamp >= before.addSecs(-1) && stamp <= after);
}

void TestMainWindow::colours_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("colour");
    QTest::newRow("below") << -1 << u"#56f0e2"_s;
    QTest::newRow("information") << 0 << u"#56f0e2"_s;
    QTest::newRow("warning") << 1 << u"#cc9235"_s;
    QTest::newRow("error") << 2 << u"#e54838"_s;
    QTest::newRow("protocol") << 3 << u"#2e8f86"_s;
    QTest::newRow("above") << 7 << u"#2e8f86"_s;
}

void TestMainWindow::colours()
{
    QFETCH(const int, level);
    TestJobs::store({}, {.verbose = true});
    TestWindow window;
    window.clearLog();
    window.sayFromWorker(u"hello"_s, level);
    QCOMPARE(window.log(), QStringList({u"hello"_s}));
    QTEST(window.logLines().first().colour, "colour");
    QCOMPARE(window.logLines().first().stampColour, u"#2e8f86"_s);
}

void TestMainWindow::textIsLiteral_data()
{
    QTest::addColumn<QString>("message");
    QTest::newRow("a tag") << u"<b>"_s;
    QTest::newRow("a whole element") << u"<b>bold</b>"_s;
    QTest::newRow("an escaped tag") << u"&lt;b&gt; &amp;"_s;
    QTest::newRow("the end of the line's own tag") << u"</span><h1>big"_s;
    QTest::newRow("quotes") << u"'single' and \"double\""_s;
    QTest::newRow("placeholders") << u"%1 %2 %3"_s;
    QTest::newRow("other alphabets") << u"Zürich, 東京, 🦀"_s;
}

void TestMainWindow::textIsLiteral()
{
    QFETCH(const QString, message);
    TestWindow window;
    window.clearLog();
    window.sayFromWorker(message, 1);
    QCOMPARE(window.log(), QStringList({message}));
    QCOMPARE(window.logLines().first().colour, u"#cc9235"_s);
}

void TestMainWindow::lineBreaksStayInOneLine()
{
    TestWindow window;
    window.clearLog();
    window.sayFromWorker(u"one\ntwo\nthree"_s, 0);
    QCOMPARE(window.part<QPlainTextEdit>("logView")->blockCount(), 1);
    QVERIFY(window.log().first().startsWith(u"one"_s));
    QVERIFY(window.log().first().endsWith(u"three"_s));
}

void TestMainWindow::theLogFollowsTheNewestLine()
{
    TestWindow window;
    window.show();
    for (int i = 0; i < 200; ++i)
        window.sayFromWorker(u"line %1"_s.arg(i), 0);
    QScrollBar *bar = window.part<QPlainTextEdit>("logView")->verticalScrollBar();
    QVERIFY(bar->maximum() > 100);
    QCOMPARE(bar->value(), bar->maximum());
    bar->setValue(3);
    window.sayFromWorker(u"the newest"_s, 0);
    QCOMPARE(bar->value(), bar->maximum());
}

void TestMainWindow::theLogIsCapped()
{
    TestWindow window;
    window.clearLog();
    for (int i = 1; i <= 5002; ++i)
        window.sayFromWorker(u"line %1"_s.arg(i), 0);
    const QStringList lines = window.log();
    QCOMPARE(lines.size(), 5000);
    QCOMPARE(lines.first(), u"line 3"_s);
    QCOMPARE(lines.last(), u"line 5002"_s);
}

void TestMainWindow::protocolIsShownOnRequest()
{
    TestWindow window;
    window.clearLog();
    const auto sayAll = [&window] {
        for (int level = -1; level <= 4; ++level)
            window.sayFromWorker(u"level %1"_s.arg(level), level);
    };
    const QStringList without{u"level -1"_s, u"level 0"_s, u"level 1"_s, u"level 2"_s, u"level 4"_s};
    const QStringList with{u"level -1"_s, u"level 0"_s, u"level 1"_s,
                           u"level 2"_s,  u"level 3"_s, u"level 4"_s};
    sayAll();
    QCOMPARE(window.log(), without);
    window.part<QAction>("verboseAction")->trigger(); // holds from the next line on
    QCOMPARE(window.log(), without);
    sayAll();
    QCOMPARE(window.log(), without + with);
    window.part<QAction>("verboseAction")->trigger();
    sayAll();
    QCOMPARE(window.log(), without + with + without);
}

// Closing

void TestMainWindow::closingSavesAndEndsTheProgram_data()
{
    QTest::addColumn<QByteArray>("way");
    QTest::newRow("the window's X") << QByteArray("close");
    QTest::newRow("the menu") << QByteArray("menu");
    QTest::newRow("the end of the session, or a signal") << QByteArray("quit");
}

void TestMainWindow::closingSavesAndEndsTheProgram()
{
    QFETCH(const QByteArray, way);
    TestJobs::store({TestJobs::named(u"alpha"_s)}, {.minimiseToTray = false});
    TestWindow window;
    window.show();
    file.clear();
    QTimer::singleShot(0, &window, [&window, &way] {
        if (way == "close")
            window.close();
        else if (way == "menu")
            window.choose(kProgram, u"E&xit"_s);
        else
            window.quit();
    });
    QCOMPARE(runToTheEnd(), 0);
    QVERIFY(!window.isVisible());
    QVERIFY(!window.part<QThread>("workerThread")->isRunning());
    QCOMPARE(TestJobs::stored().jobs.size(), 1);
    QVERIFY(!TestJobs::stored().minimiseToTray);
    QVERIFY(!settingsStore().value("geometry").toByteArray().isEmpty());
    QCOMPARE(window.log(), QStringList({u"Ready. 1 job configured."_s}));
}

void TestMainWindow::withoutATrayClosingIsForGood()
{
    QVERIFY(!QSystemTrayIcon::isSystemTrayAvailable());
    TestJobs::store({}, {.minimiseToTray = true});
    TestWindow window;
    QVERIFY(!window.findChild<QSystemTrayIcon *>());
    window.show();
    file.clear();
    QTimer::singleShot(0, &window, &QWidget::close);
    QCOMPARE(runToTheEnd(), 0);
    QVERIFY(!window.isVisible());
    QVERIFY(isSaved());
}

void TestMainWindow::aMessageBoxDoesNotHoldUpTheEnd()
{
    TestWindow window;
    window.show();
    QTimer::singleShot(0, &window, [&window] { window.press("autoCheck"); }); // without a job
    bool isBoxUp = false;
    QTimer::singleShot(0, &window, [&window, &isBoxUp] {
        const auto *box = window.findChild<QMessageBox *>();
        isBoxUp = box && box->isVisible();
        window.quit();
    });
    QCOMPARE(runToTheEnd(), 0);
    QVERIFY(isBoxUp);
    QVERIFY(!window.isVisible());
    QVERIFY(isSaved());
}

void TestMainWindow::geometryComesBack()
{
    {
        TestWindow window;
        window.show();
        window.resize(701, 603);
        QVERIFY(window.close());
    }
    {
        const TestWindow restarted;
        QCOMPARE(restarted.size(), QSize(701, 603));
    }
    AppSettings().save(); // leaves the key alone
    const TestWindow again;
    QCOMPARE(again.size(), QSize(701, 603));
}

void TestMainWindow::damagedGeometryIsIgnored_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("words") << QByteArray("geometry=small, please");
    QTest::newRow("empty") << QByteArray("geometry=");
    QTest::newRow("bytes") << QByteArray("geometry=@ByteArray(\\x1\\xd9\\xd0\\xcb\\0\\x3)");
    QTest::newRow("of no size") << QByteArray("geometry=@ByteArray(\\x1\\xd9\\xd0\\xcb\\0\\x3\\0\\0") +
                                       QByteArray("\\0").repeated(64) + ')';
    QTest::newRow("of another kind") << QByteArray("geometry=@Invalid()");
}

void TestMainWindow::damagedGeometryIsIgnored()
{
    QFETCH(const QByteArray, text);
    file.write("[General]\n" + text + '\n');
    const TestWindow window;
    QCOMPARE(window.size(), QSize(880, 760));
}

void TestMainWindow::theWorkerThreadEndsWithTheWindow()
{
    QPointer<QThread> thread;
    {
        const TestWindow window;
        thread = window.part<QThread>("workerThread");
        QCOMPARE(thread->parent(), &window);
        QVERIFY(thread->isRunning());
    }
    QVERIFY(!thread);
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestMainWindow test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_MainWindow.moc"
