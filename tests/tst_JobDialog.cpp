#include "dialogs/JobDialog.h"
#include "dialogs/ScheduleRuleDialog.h"
#include "support/DialogVisit.h"
#include "support/MarkingTranslator.h"
#include "support/MessageBoxAnswer.h"
#include "support/TestSettings.h"

#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMetaMethod>
#include <QPushButton>
#include <QRadioButton>
#include <QScopeGuard>
#include <QSpinBox>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

const QString kTitle = u"Synchronisation job"_s;
const QString kNoName = u"Give the job a name so you can tell it apart from the others."_s;
const QString kNoHost = u"Enter the FTP host on the Server tab."_s;
const QString kNoFolder = u"Choose a local folder on the Folders tab."_s;
const QString kNoSchedule =
    u"Add at least one usable schedule on the Schedule tab, or switch the job to 'Every N minutes'."_s;
const QString kLastSchedule =
    u"A job needs at least one schedule. Edit this one, or switch to 'Every N minutes'."_s;
const QString kNothing = u"<b>Nothing selected.</b> Add a schedule, or this job will never run."_s;
const QString kPreviewStyle =
    u"QLabel { background:#f4f7f6; border:1px solid #d4dedb; border-radius:3px; padding:6px; }"_s;

enum Tab : int { ServerTab, FoldersTab, SyncTab, ScheduleTab };

ScheduleRule makeRule(quint8 days, quint32 hours = 16777215, const QList<int> &minutes = {0})
{
    ScheduleRule rule;
    rule.days = days;
    rule.hours = hours;
    rule.minutes = minutes;
    return rule;
}

/** A job that passes every check. */
SyncJob goodJob()
{
    SyncJob job;
    job.name = u"alpha"_s;
    job.config.host = u"127.0.0.1"_s;
    job.config.localDir = u"/home/kim/alpha"_s;
    return job;
}

SyncJob weeklyJob(const QList<ScheduleRule> &rules)
{
    SyncJob job = goodJob();
    job.scheduleMode = Rules;
    job.rules = rules;
    return job;
}

QStringList storage(const QList<ScheduleRule> &rules)
{
    QStringList texts;
    for (const ScheduleRule &rule : rules)
        texts += rule.toStorage();
    return texts;
}

/** The dialog in a test's hands; a part that is missing ends the test program. */
class Dialog : public JobDialog
{
public:
    explicit Dialog(const SyncJob &job = goodJob()) : JobDialog(job, nullptr) {}

    template <typename Part>
    Part *part(const char *name) const
    {
        auto *found = findChild<Part *>(QLatin1String(name));
        if (!found)
            qFatal("the dialog has no %s", name);
        return found;
    }

    QLineEdit *edit(const char *name) const { return part<QLineEdit>(name); }
    QSpinBox *spin(const char *name) const { return part<QSpinBox>(name); }
    QComboBox *combo(const char *name) const { return part<QComboBox>(name); }
    QAbstractButton *button(const char *name) const { return part<QAbstractButton>(name); }
    QTabWidget *tabs() const { return findChild<QTabWidget *>(); }
    QListWidget *list() const { return part<QListWidget>("ruleList"); }
    QString preview() const { return part<QLabel>("schedulePreview")->text(); }
    QString modeText() const { return part<QLabel>("modeDescription")->text(); }
    QPushButton *standardButton(QDialogButtonBox::StandardButton which) const
    {
        return findChild<QDialogButtonBox *>()->button(which);
    }
    void pressOk() const { standardButton(QDialogButtonBox::Ok)->click(); }
    QString labelled(const QWidget *field) const ///< the text of the label that is the field's own
    {
        for (const QLabel *label : findChildren<QLabel *>()) {
            if (label->buddy() == field)
                return label->text();
        }
        return {};
    }
};

/** Does something with the rule dialog that comes next. */
class RuleDialogVisit : public DialogVisit
{
public:
    explicit RuleDialogVisit(const std::function<void(ScheduleRuleDialog *)> &visit) :
        DialogVisit(u"Schedule"_s,
                    [visit](QDialog *dialog) { visit(qobject_cast<ScheduleRuleDialog *>(dialog)); })
    {
    }
};

QString accessibleName(QWidget *widget)
{
    return QAccessible::queryAccessibleInterface(widget)->text(QAccessible::Name);
}

} // namespace

class TestJobDialog : public QObject
{
    Q_OBJECT

private slots:
    void theFrame();
    void theHeader();
    void theServerTab();
    void theFoldersTab();
    void theSyncTab();
    void theScheduleTab();
    void theRulesPanel();
    void theSlots();
    void noToolTips();

    void showsTheJob();
    void unchangedComesBackUnchanged();
    void everyControlIsRead();
    void theCertificateIsAlwaysAccepted();
    void timeouts_data();
    void timeouts();
    void portsAndIntervals_data();
    void portsAndIntervals();
    void portsOutOfRangeCannotBeTyped();
    void trimming();
    void remoteFolders_data();
    void remoteFolders();
    void excludes_data();
    void excludes();
    void longAndForeignTexts_data();
    void longAndForeignTexts();

    void transferModes_data();
    void transferModes();
    void unknownStoredModes();
    void scheduleModes_data();
    void scheduleModes();
    void theModeCanBeChosen();

    void theRuleList();
    void theRuleButtons();
    void noRulesMeanTheDefaultRule();
    void proposedDays_data();
    void proposedDays();
    void addingARule();
    void editingARule();
    void aDoubleClickEdits();
    void aCancelledRuleChangesNothing();
    void removingRules();
    void theLastRuleStays();
    void withoutACurrentRuleNothingIsEditedOrRemoved();
    void aMendedRuleIsNoLongerRed();
    void fiveHundredRules();

    void thePreviewOfAnInterval();
    void thePreviewOfRules();
    void thePreviewForgetsTheLastRun();
    void thePreviewWarns();
    void thePreviewFollows();

    void refusals_data();
    void refusals();
    void refusedOneAfterTheOther();
    void aRefusedNameGetsTheFocus();
    void aRedRuleBesideAGoodOnePasses();
    void intervalsDoNotLookAtTheRules();
    void okAndCancel();
    void keys();

    void browsing_data();
    void browsing();
    void aCancelledBrowseChangesNothing();

    void readableOnADarkDesktop();
    void everyFieldHasAName();
    void theTabOrderFollowsTheEye();
    void textsAreTranslated();
    void refusalsAreTranslated();
};

// What is to be seen

void TestJobDialog::theFrame()
{
    const Dialog dialog;
    QCOMPARE(dialog.windowTitle(), kTitle);
    QVERIFY(dialog.isModal());
    QCOMPARE(dialog.size(), QSize(560, 470));
    const auto *layout = qobject_cast<QVBoxLayout *>(dialog.layout());
    QVERIFY(layout);
    QCOMPARE(layout->count(), 3);
    QVERIFY(qobject_cast<QHBoxLayout *>(layout->itemAt(0)->layout()));
    QCOMPARE(layout->itemAt(1)->widget(), dialog.tabs());
    auto *buttons = dialog.findChild<QDialogButtonBox *>();
    QCOMPARE(layout->itemAt(2)->widget(), buttons);
    QCOMPARE(buttons->standardButtons(), QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    QStringList titles;
    for (int tab = 0; tab < dialog.tabs()->count(); ++tab)
        titles += dialog.tabs()->tabText(tab);
    QCOMPARE(titles, QStringList({u"Server"_s, u"Folders"_s, u"Sync"_s, u"Schedule"_s}));
    QCOMPARE(dialog.tabs()->currentIndex(), 0);
}

void TestJobDialog::theHeader()
{
    const Dialog dialog;
    const auto *row = qobject_cast<QHBoxLayout *>(dialog.layout()->itemAt(0)->layout());
    QCOMPARE(row->count(), 3);
    QCOMPARE(qobject_cast<QLabel *>(row->itemAt(0)->widget())->text(), u"Job name:"_s);
    QCOMPARE(row->itemAt(1)->widget(), dialog.edit("nameEdit"));
    QCOMPARE(row->stretch(1), 1);
    QCOMPARE(dialog.edit("nameEdit")->placeholderText(), u"e.g. 2YYY overnight archive"_s);
    QCOMPARE(row->itemAt(2)->widget(), dialog.button("enabledBox"));
    QCOMPARE(dialog.button("enabledBox")->text(), u"Enabled"_s);
}

void TestJobDialog::theServerTab()
{
    const Dialog dialog;
    const auto *form = qobject_cast<QFormLayout *>(dialog.tabs()->widget(ServerTab)->layout());
    QVERIFY(form);
    const struct
    {
        QString label;
        QString field; ///< the object's name
    } rows[] = {
        {u"Host:"_s, u"hostEdit"_s},         {u"Port:"_s, u"portSpin"_s}, {u"Username:"_s, u"userEdit"_s},
        {u"Password:"_s, u"passwordEdit"_s}, {QString(), QString()},      {u"Security:"_s, u"tlsBox"_s},
        {u"Timeout:"_s, u"timeoutSpin"_s},
    };
    QCOMPARE(form->rowCount(), int(std::size(rows)));
    for (int i = 0; i < form->rowCount(); ++i) {
        const QLayoutItem *label = form->itemAt(i, QFormLayout::LabelRole);
        QCOMPARE(label ? qobject_cast<QLabel *>(label->widget())->text() : QString(), rows[i].label);
        QCOMPARE(form->itemAt(i, QFormLayout::FieldRole)->widget()->objectName(), rows[i].field);
    }
    const auto *note = qobject_cast<QLabel *>(form->itemAt(4, QFormLayout::FieldRole)->widget());
    QCOMPARE(note->text(), u"<i>Passwords are stored obfuscated, not encrypted.</i>"_s);
    QVERIFY(note->wordWrap());
    QCOMPARE(note->textFormat(), Qt::RichText);
    QVERIFY(!dialog.edit("hostEdit")->placeholderText().isEmpty());
    QCOMPARE(dialog.spin("portSpin")->minimum(), 1);
    QCOMPARE(dialog.spin("portSpin")->maximum(), 65535);
    QCOMPARE(dialog.spin("portSpin")->suffix(), QString());
    QCOMPARE(dialog.edit("passwordEdit")->echoMode(), QLineEdit::Password);
    QCOMPARE(dialog.edit("userEdit")->echoMode(), QLineEdit::Normal);
    QCOMPARE(dialog.button("tlsBox")->text(), u"Use explicit FTPS (AUTH TLS)"_s);
    QCOMPARE(dialog.spin("timeoutSpin")->minimum(), 5);
    QCOMPARE(dialog.spin("timeoutSpin")->maximum(), 600);
    QCOMPARE(dialog.spin("timeoutSpin")->suffix(), u" seconds"_s);
}

void TestJobDialog::theFoldersTab()
{
    const Dialog dialog;
    const auto *grid = qobject_cast<QGridLayout *>(dialog.tabs()->widget(FoldersTab)->layout());
    QVERIFY(grid);
    const auto at = [grid](int row, int column) { return grid->itemAtPosition(row, column)->widget(); };
    const auto text = [&at](int row, int column) { return at(row, column)->property("text").toString(); };
    QCOMPARE(text(0, 0), u"Remote folder:"_s);
    QCOMPARE(text(1, 0), u"Local folder:"_s);
    QCOMPARE(text(2, 0), u"Exclude:"_s);
    for (const int column : {1, 2}) {
        QCOMPARE(at(0, column), dialog.edit("remoteEdit"));
        QCOMPARE(at(2, column), dialog.edit("excludeEdit"));
        QCOMPARE(text(3, column), u"<i>Semicolon separated wildcards, matched on the name.</i>"_s);
        QCOMPARE(at(4, column), dialog.button("recursiveBox"));
    }
    QCOMPARE(at(1, 1), dialog.edit("localEdit"));
    QCOMPARE(at(1, 2), dialog.button("browseButton"));
    QCOMPARE(grid->columnStretch(1), 1);
    QCOMPARE(grid->rowStretch(5), 1);
    const auto *note = qobject_cast<QLabel *>(at(3, 1));
    QVERIFY(note->wordWrap());
    QCOMPARE(note->textFormat(), Qt::RichText);
    QCOMPARE(dialog.edit("remoteEdit")->placeholderText(), u"/public_html/recordings"_s);
    QCOMPARE(dialog.button("browseButton")->text(), u"..."_s);
    QCOMPARE(dialog.edit("excludeEdit")->placeholderText(), u"*.tmp; cache*; .htaccess"_s);
    QCOMPARE(dialog.button("recursiveBox")->text(), u"Include sub-folders"_s);
}

void TestJobDialog::theSyncTab()
{
    const Dialog dialog;
    const auto *layout = qobject_cast<QVBoxLayout *>(dialog.tabs()->widget(SyncTab)->layout());
    QVERIFY(layout);
    QCOMPARE(layout->count(), 4);
    const auto *transfer = qobject_cast<QGroupBox *>(layout->itemAt(0)->widget());
    QCOMPARE(transfer->title(), u"What to transfer"_s);
    const auto *form = qobject_cast<QFormLayout *>(transfer->layout());
    QCOMPARE(form->rowCount(), 2);
    QCOMPARE(form->itemAt(0, QFormLayout::FieldRole)->widget(), dialog.combo("syncModeCombo"));
    QCOMPARE(form->itemAt(1, QFormLayout::FieldRole)->widget(), dialog.combo("compareCombo"));
    QCOMPARE(dialog.labelled(dialog.combo("syncModeCombo")), u"Transfer:"_s);
    QCOMPARE(dialog.labelled(dialog.combo("compareCombo")), u"Compare by:"_s);
    const auto items = [](const QComboBox *combo) {
        QStringList texts;
        for (int i = 0; i < combo->count(); ++i)
            texts += combo->itemText(i) + u' ' + combo->itemData(i).toString();
        return texts;
    };
    QCOMPARE(items(dialog.combo("syncModeCombo")),
             QStringList({u"New and changed files 0"_s, u"New files only (never overwrite) 1"_s,
                          u"Full sync (re-download everything) 2"_s}));
    QCOMPARE(items(dialog.combo("compareCombo")),
             QStringList({u"Size and timestamp 0"_s, u"Size only 1"_s, u"Timestamp only 2"_s}));

    const auto *description = dialog.part<QLabel>("modeDescription");
    QCOMPARE(layout->itemAt(1)->widget(), description);
    QVERIFY(description->wordWrap());
    QCOMPARE(description->textFormat(), Qt::RichText);

    const auto *housekeeping = qobject_cast<QGroupBox *>(layout->itemAt(2)->widget());
    QCOMPARE(housekeeping->title(), u"Local housekeeping"_s);
    const auto *column = qobject_cast<QVBoxLayout *>(housekeeping->layout());
    QCOMPARE(column->count(), 2);
    QCOMPARE(column->itemAt(0)->widget(), dialog.button("deleteBox"));
    QCOMPARE(dialog.button("deleteBox")->text(), u"Delete local files that no longer exist on the server"_s);
    const auto *note = qobject_cast<QLabel *>(column->itemAt(1)->widget());
    QCOMPARE(note->text(),
             u"<i>Turns the copy into a true mirror. A folder is only pruned when its remote "
             "listing succeeded, so a dropped connection cannot wipe your local files. Excluded "
             "names are never deleted.</i>"_s);
    QVERIFY(note->wordWrap());
    QCOMPARE(note->textFormat(), Qt::RichText);
    QVERIFY(layout->itemAt(3)->spacerItem());
}

void TestJobDialog::theScheduleTab()
{
    const Dialog dialog;
    QWidget *tab = dialog.tabs()->widget(ScheduleTab);
    const auto *layout = qobject_cast<QVBoxLayout *>(tab->layout());
    QVERIFY(layout);
    QCOMPARE(layout->spacing(), 8);
    QCOMPARE(layout->count(), 6);
    const auto *row = qobject_cast<QHBoxLayout *>(layout->itemAt(0)->layout());
    QCOMPARE(row->count(), 3);
    QCOMPARE(row->itemAt(0)->widget(), dialog.button("intervalRadio"));
    QCOMPARE(row->itemAt(1)->widget(), dialog.spin("intervalSpin"));
    QVERIFY(row->itemAt(2)->spacerItem());
    QCOMPARE(dialog.button("intervalRadio")->text(), u"Every"_s);
    QCOMPARE(dialog.spin("intervalSpin")->minimum(), 1);
    QCOMPARE(dialog.spin("intervalSpin")->maximum(), 10080);
    QCOMPARE(dialog.spin("intervalSpin")->suffix(), u" minutes"_s);
    QCOMPARE(layout->itemAt(1)->widget(), dialog.button("rulesRadio"));
    QCOMPARE(dialog.button("rulesRadio")->text(), u"At set times"_s);
    QCOMPARE(dialog.button("rulesRadio")->parentWidget(), tab);
    QCOMPARE(dialog.button("intervalRadio")->parentWidget(), tab);
    QCOMPARE(layout->itemAt(2)->widget(), dialog.part<QWidget>("rulesPanel"));
    const auto *note = qobject_cast<QLabel *>(layout->itemAt(3)->widget());
    QCOMPARE(note->text(),
             u"<i>Add more than one schedule to cover different parts of the week from a single job, for "
             "example hourly Monday to Friday plus a twice-daily pull at the weekend. The job runs whenever "
             "any of its schedules is due.</i>"_s);
    QVERIFY(note->wordWrap());
    QCOMPARE(note->textFormat(), Qt::RichText);
    const auto *preview = dialog.part<QLabel>("schedulePreview");
    QCOMPARE(layout->itemAt(4)->widget(), preview);
    QVERIFY(preview->wordWrap());
    QCOMPARE(preview->textFormat(), Qt::RichText);
    QCOMPARE(preview->minimumHeight(), 58);
    QCOMPARE(preview->styleSheet(), kPreviewStyle);
    QVERIFY(layout->itemAt(5)->spacerItem());
}

void TestJobDialog::theRulesPanel()
{
    const Dialog dialog;
    const auto *row = qobject_cast<QHBoxLayout *>(dialog.part<QWidget>("rulesPanel")->layout());
    QVERIFY(row);
    QCOMPARE(row->contentsMargins(), QMargins(20, 2, 0, 0));
    QCOMPARE(row->spacing(), 8);
    QCOMPARE(row->itemAt(0)->widget(), dialog.list());
    QCOMPARE(row->stretch(0), 1);
    QCOMPARE(dialog.list()->minimumHeight(), 96);
    QVERIFY(dialog.list()->alternatingRowColors());
    const auto *column = qobject_cast<QVBoxLayout *>(row->itemAt(1)->layout());
    QCOMPARE(column->count(), 4);
    QCOMPARE(column->itemAt(0)->widget(), dialog.button("addRuleButton"));
    QCOMPARE(column->itemAt(1)->widget(), dialog.button("editRuleButton"));
    QCOMPARE(column->itemAt(2)->widget(), dialog.button("removeRuleButton"));
    QVERIFY(column->itemAt(3)->spacerItem());
    QCOMPARE(dialog.button("addRuleButton")->text(), u"Add..."_s);
    QCOMPARE(dialog.button("editRuleButton")->text(), u"Edit..."_s);
    QCOMPARE(dialog.button("removeRuleButton")->text(), u"Remove"_s);
}

void TestJobDialog::theSlots()
{
    const QMetaObject &meta = JobDialog::staticMetaObject;
    QStringList names;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        names += QString::fromLatin1(meta.method(i).methodSignature());
    QCOMPARE(names, QStringList({u"onBrowseLocal()"_s, u"updateEnabledStates()"_s}));
}

void TestJobDialog::noToolTips()
{
    const Dialog dialog;
    for (const QWidget *widget : dialog.findChildren<QWidget *>())
        QCOMPARE(widget->toolTip(), QString());
}

// The fields and the job

void TestJobDialog::showsTheJob()
{
    SyncJob job;
    job.name = u" beta "_s;
    job.enabled = false;
    job.config.host = u"127.0.0.1"_s;
    job.config.port = 2121;
    job.config.user = u"kim"_s;
    job.config.password = u"pa ss"_s;
    job.config.useTls = true;
    job.config.timeout = 45000;
    job.config.remoteDir = u" pub"_s;
    job.config.localDir = u"/home/kim"_s;
    job.config.excludes = {u"*.tmp"_s, u"cache*"_s};
    job.config.recursive = false;
    job.config.syncMode = NewOnly;
    job.config.compareBy = TimestampOnly;
    job.config.deleteExtraneous = true;
    job.intervalMins = 90;
    const Dialog dialog(job);
    QCOMPARE(dialog.edit("nameEdit")->text(), u" beta "_s);
    QVERIFY(!dialog.button("enabledBox")->isChecked());
    QCOMPARE(dialog.edit("hostEdit")->text(), u"127.0.0.1"_s);
    QCOMPARE(dialog.spin("portSpin")->value(), 2121);
    QCOMPARE(dialog.edit("userEdit")->text(), u"kim"_s);
    QCOMPARE(dialog.edit("passwordEdit")->text(), u"pa ss"_s);
    QVERIFY(dialog.button("tlsBox")->isChecked());
    QCOMPARE(dialog.spin("timeoutSpin")->text(), u"45 seconds"_s);
    QCOMPARE(dialog.edit("remoteEdit")->text(), u" pub"_s);
    QCOMPARE(dialog.edit("localEdit")->text(), QDir::toNativeSeparators(u"/home/kim"_s));
    QCOMPARE(dialog.edit("excludeEdit")->text(), u"*.tmp; cache*"_s);
    QVERIFY(!dialog.button("recursiveBox")->isChecked());
    QCOMPARE(dialog.combo("syncModeCombo")->currentIndex(), 1);
    QCOMPARE(dialog.combo("compareCombo")->currentIndex(), 2);
    QVERIFY(dialog.button("deleteBox")->isChecked());
    QVERIFY(dialog.button("intervalRadio")->isChecked());
    QVERIFY(!dialog.button("rulesRadio")->isChecked());
    QCOMPARE(dialog.spin("intervalSpin")->text(), u"90 minutes"_s);
}

void TestJobDialog::unchangedComesBackUnchanged()
{
    SyncJob job = weeklyJob({makeRule(31, 524224, {0, 30}), makeRule(96, 1)});
    job.config.user = u" kim "_s;
    job.config.password = u" secret "_s;
    job.config.excludes = {u"*.tmp"_s};
    job.lastRun = QDateTime(QDate(2024, 5, 1), QTime(8, 30));
    job.lastSummary = u"3 downloaded"_s;
    job.lastOk = false;
    job.nextRun = QDateTime(QDate(2024, 5, 2), QTime(8, 30));
    job.queued = true;
    job.running = true;
    const SyncJob back = Dialog(job).job();
    QCOMPARE(back.name, job.name);
    QCOMPARE(back.enabled, job.enabled);
    QCOMPARE(back.config.host, job.config.host);
    QCOMPARE(back.config.port, job.config.port);
    QCOMPARE(back.config.user, u" kim "_s);
    QCOMPARE(back.config.password, u" secret "_s);
    QCOMPARE(back.config.useTls, job.config.useTls);
    QCOMPARE(back.config.timeout, job.config.timeout);
    QCOMPARE(back.config.remoteDir, job.config.remoteDir);
    QCOMPARE(back.config.localDir, job.config.localDir);
    QCOMPARE(back.config.syncMode, job.config.syncMode);
    QCOMPARE(back.config.compareBy, job.config.compareBy);
    QCOMPARE(back.config.deleteExtraneous, job.config.deleteExtraneous);
    QCOMPARE(back.config.recursive, job.config.recursive);
    QCOMPARE(back.config.excludes, job.config.excludes);
    QCOMPARE(back.scheduleMode, job.scheduleMode);
    QCOMPARE(back.intervalMins, job.intervalMins);
    QCOMPARE(storage(back.rules), storage(job.rules));
    QCOMPARE(back.lastRun, job.lastRun);
    QCOMPARE(back.lastSummary, job.lastSummary);
    QCOMPARE(back.lastOk, job.lastOk);
    QCOMPARE(back.nextRun, job.nextRun);
    QVERIFY(back.queued);
    QVERIFY(back.running);
}

void TestJobDialog::everyControlIsRead()
{
    const Dialog dialog;
    dialog.edit("nameEdit")->setText(u"beta"_s);
    dialog.button("enabledBox")->click();
    dialog.edit("hostEdit")->setText(u"localhost"_s);
    dialog.spin("portSpin")->setValue(65535);
    dialog.edit("userEdit")->setText(u"kim"_s);
    dialog.edit("passwordEdit")->setText(u"secret"_s);
    dialog.button("tlsBox")->click();
    dialog.spin("timeoutSpin")->setValue(600);
    dialog.edit("remoteEdit")->setText(u"/pub"_s);
    dialog.edit("localEdit")->setText(QDir::toNativeSeparators(u"/home/kim/beta"_s));
    dialog.edit("excludeEdit")->setText(u"*.tmp"_s);
    dialog.button("recursiveBox")->click();
    dialog.combo("compareCombo")->setCurrentIndex(1);
    dialog.combo("syncModeCombo")->setCurrentIndex(2);
    dialog.button("deleteBox")->click();
    dialog.spin("intervalSpin")->setValue(10080);
    const SyncJob job = dialog.job();
    QCOMPARE(job.name, u"beta"_s);
    QVERIFY(!job.enabled);
    QCOMPARE(job.config.host, u"localhost"_s);
    QCOMPARE(job.config.port, quint16(65535));
    QCOMPARE(job.config.user, u"kim"_s);
    QCOMPARE(job.config.password, u"secret"_s);
    QVERIFY(job.config.useTls);
    QCOMPARE(job.config.timeout, 600000);
    QCOMPARE(job.config.remoteDir, u"/pub"_s);
    QCOMPARE(job.config.localDir, u"/home/kim/beta"_s);
    QCOMPARE(job.config.excludes, QStringList(u"*.tmp"_s));
    QVERIFY(!job.config.recursive);
    QCOMPARE(job.config.syncMode, int(FullSync));
    QCOMPARE(job.config.compareBy, int(SizeOnly));
    QVERIFY(job.config.deleteExtraneous);
    QCOMPARE(job.scheduleMode, int(Interval));
    QCOMPARE(job.intervalMins, 10080);
}

void TestJobDialog::theCertificateIsAlwaysAccepted()
{
    SyncJob job = goodJob();
    job.config.acceptAnyCertificate = false;
    QVERIFY(Dialog(job).job().config.acceptAnyCertificate);
}

void TestJobDialog::timeouts_data()
{
    QTest::addColumn<int>("milliseconds");
    QTest::addColumn<int>("seconds");
    QTest::newRow("half a second is cut off") << 30500 << 30;
    QTest::newRow("the least") << 5000 << 5;
    QTest::newRow("below it") << 4999 << 5;
    QTest::newRow("none") << 0 << 5;
    QTest::newRow("negative") << -30000 << 5;
    QTest::newRow("the most") << 600000 << 600;
    QTest::newRow("above it") << 601000 << 600;
}

void TestJobDialog::timeouts()
{
    QFETCH(const int, milliseconds);
    QFETCH(const int, seconds);
    SyncJob job = goodJob();
    job.config.timeout = milliseconds;
    const Dialog dialog(job);
    QCOMPARE(dialog.spin("timeoutSpin")->value(), seconds);
    QCOMPARE(dialog.job().config.timeout, seconds * 1000);
}

void TestJobDialog::portsAndIntervals_data()
{
    QTest::addColumn<quint16>("port");
    QTest::addColumn<quint16>("shownPort");
    QTest::addColumn<int>("minutes");
    QTest::addColumn<int>("shownMinutes");
    QTest::newRow("none") << quint16(0) << quint16(1) << 0 << 1;
    QTest::newRow("the least") << quint16(1) << quint16(1) << 1 << 1;
    QTest::newRow("the most") << quint16(65535) << quint16(65535) << 10080 << 10080;
    QTest::newRow("too long an interval") << quint16(21) << quint16(21) << 10081 << 10080;
    QTest::newRow("negative interval") << quint16(21) << quint16(21) << -5 << 1;
}

void TestJobDialog::portsAndIntervals()
{
    QFETCH(const quint16, port);
    QFETCH(const int, minutes);
    SyncJob job = goodJob();
    job.config.port = port;
    job.intervalMins = minutes;
    const SyncJob back = Dialog(job).job();
    QTEST(back.config.port, "shownPort");
    QTEST(back.intervalMins, "shownMinutes");
}

void TestJobDialog::portsOutOfRangeCannotBeTyped()
{
    Dialog dialog;
    dialog.show();
    QSpinBox *port = dialog.spin("portSpin");
    port->selectAll();
    QTest::keyClicks(port, u"65536"_s);
    QCOMPARE(dialog.job().config.port, quint16(6553)); // the last digit is not taken
    port->selectAll();
    QTest::keyClicks(port, u"0-x"_s);
    dialog.pressOk();
    QVERIFY(dialog.job().config.port >= 1);
}

void TestJobDialog::trimming()
{
    const Dialog dialog;
    for (const char *name : {"nameEdit", "hostEdit", "userEdit", "passwordEdit", "remoteEdit", "localEdit"})
        dialog.edit(name)->setText(u" \tx y\u00a0 "_s);
    const SyncJob job = dialog.job();
    QCOMPARE(job.name, u"x y"_s);
    QCOMPARE(job.config.host, u"x y"_s);
    QCOMPARE(job.config.user, u" \tx y\u00a0 "_s);
    QCOMPARE(job.config.password, u" \tx y\u00a0 "_s);
    QCOMPARE(job.config.remoteDir, u"x y"_s);
    QCOMPARE(job.config.localDir, u"x y"_s);
}

void TestJobDialog::remoteFolders_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("folder");
    QTest::newRow("empty") << u""_s << u"/"_s;
    QTest::newRow("blanks") << u"  \t "_s << u"/"_s;
    QTest::newRow("no leading slash") << u"pub/a b"_s << u"pub/a b"_s;
    QTest::newRow("slash behind") << u"/pub/"_s << u"/pub/"_s;
    QTest::newRow("backslash") << u"a\\b"_s << u"a\\b"_s;
}

void TestJobDialog::remoteFolders()
{
    QFETCH(const QString, typed);
    const Dialog dialog;
    dialog.edit("remoteEdit")->setText(typed);
    QTEST(dialog.job().config.remoteDir, "folder");
}

void TestJobDialog::excludes_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QStringList>("patterns");
    QTest::newRow("empty") << u""_s << QStringList();
    QTest::newRow("only a semicolon") << u";"_s << QStringList();
    QTest::newRow("blanks and semicolons") << u" ; ;; \t;"_s << QStringList();
    QTest::newRow("doubled, and one at the end")
        << u" *.tmp ;; cache* ;"_s << QStringList({u"*.tmp"_s, u"cache*"_s});
    QTest::newRow("blank inside") << u"a b;c,d"_s << QStringList({u"a b"_s, u"c,d"_s});
    QTest::newRow("twice the same") << u"a;a"_s << QStringList({u"a"_s, u"a"_s});
    QTest::newRow("unicode") << u"ü*;日本 ; 😀"_s << QStringList({u"ü*"_s, u"日本"_s, u"😀"_s});
    QTest::newRow("more than a field takes by itself")
        << u"abcdef;"_s.repeated(6000) << QStringList(6000, u"abcdef"_s);
    QTest::newRow("10000 patterns") << u"a;"_s.repeated(10000) << QStringList(10000, u"a"_s);
}

void TestJobDialog::excludes()
{
    QFETCH(const QString, typed);
    SyncJob job = goodJob();
    job.config.excludes = {u"old"_s};
    const Dialog dialog(job);
    dialog.edit("excludeEdit")->setText(typed);
    QTEST(dialog.job().config.excludes, "patterns");
}

void TestJobDialog::longAndForeignTexts_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("10000 characters") << QString(10000, u'x');
    QTest::newRow("10000 beyond Latin") << u"長"_s.repeated(10000);
    QTest::newRow("outside the first plane") << u"😀🚀"_s;
    QTest::newRow("right to left") << u"שלום عالم"_s;
    QTest::newRow("place markers and mark-up") << u"%1 %2 <b>&amp;</b> &x"_s;
    QTest::newRow("only a semicolon") << u";"_s;
}

void TestJobDialog::longAndForeignTexts()
{
    QFETCH(const QString, text);
    Dialog dialog;
    for (const char *name : {"nameEdit", "hostEdit", "userEdit", "passwordEdit", "remoteEdit", "localEdit"})
        dialog.edit(name)->setText(text);
    dialog.show();
    QCOMPARE(dialog.width(), 560);
    dialog.pressOk();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    const SyncJob job = dialog.job();
    for (const QString &field : {job.name, job.config.host, job.config.user, job.config.password,
                                 job.config.remoteDir, job.config.localDir})
        QCOMPARE(field, text);
}

// The modes

void TestJobDialog::transferModes_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("compares");
    QTest::addColumn<QString>("text");
    QTest::newRow("new and changed") << 0 << true
                                     << u"<i>Downloads files that are missing locally or that differ from "
                                        "the server copy. This is the normal choice.</i>"_s;
    QTest::newRow("new only") << 1 << false
                              << u"<i>Files already present locally are never touched, even if the server "
                                 "copy changed. Useful for archives you edit locally.</i>"_s;
    QTest::newRow("full") << 2 << false
                          << u"<i>Every remote file is downloaded again on every run, regardless of local "
                             "state. Slow and bandwidth hungry; use it to repair a local copy you no longer "
                             "trust.</i>"_s;
}

void TestJobDialog::transferModes()
{
    QFETCH(const int, mode);
    SyncJob job = goodJob();
    job.config.syncMode = mode;
    job.config.compareBy = TimestampOnly;
    const Dialog stored(job);
    QTEST(stored.combo("compareCombo")->isEnabled(), "compares");
    QTEST(stored.modeText(), "text");
    QCOMPARE(stored.job().config.compareBy, int(TimestampOnly));

    const Dialog chosen;
    chosen.combo("compareCombo")->setCurrentIndex(SizeOnly);
    chosen.combo("syncModeCombo")->setCurrentIndex((mode + 1) % 3);
    chosen.combo("syncModeCombo")->setCurrentIndex(mode);
    QTEST(chosen.combo("compareCombo")->isEnabled(), "compares");
    QTEST(chosen.modeText(), "text");
    QCOMPARE(chosen.job().config.compareBy, int(SizeOnly));
    QCOMPARE(chosen.job().config.syncMode, mode);
}

void TestJobDialog::unknownStoredModes()
{
    SyncJob job = goodJob();
    job.config.syncMode = 7;
    job.config.compareBy = 9;
    const Dialog dialog(job);
    QCOMPARE(dialog.combo("syncModeCombo")->currentText(), QString()); // no choice is made up
    QCOMPARE(dialog.combo("compareCombo")->currentText(), QString());
    QVERIFY(!dialog.combo("compareCombo")->isEnabled());
    QVERIFY(dialog.modeText().startsWith(u"<i>Downloads files that are missing"_s));
    QCOMPARE(dialog.job().config.syncMode, -1);
    QCOMPARE(dialog.job().config.compareBy, -1);
    dialog.combo("syncModeCombo")->setCurrentIndex(0);
    QVERIFY(dialog.combo("compareCombo")->isEnabled());
}

void TestJobDialog::scheduleModes_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<bool>("interval");
    QTest::addColumn<bool>("rules");
    QTest::addColumn<int>("back");
    QTest::newRow("interval") << 0 << true << false << 0;
    QTest::newRow("rules") << 1 << false << true << 1;
    QTest::newRow("unknown") << 2 << false << false << 1;
    QTest::newRow("negative") << -1 << false << false << 1;
}

void TestJobDialog::scheduleModes()
{
    QFETCH(const int, stored);
    QFETCH(const bool, interval);
    QFETCH(const bool, rules);
    SyncJob job = weeklyJob({makeRule(0)}); // would be refused in the mode of rules
    job.scheduleMode = stored;
    Dialog dialog(job);
    QCOMPARE(dialog.button("intervalRadio")->isChecked(), interval);
    QCOMPARE(dialog.button("rulesRadio")->isChecked(), rules);
    QCOMPARE(dialog.spin("intervalSpin")->isEnabled(), interval);
    QCOMPARE(dialog.part<QWidget>("rulesPanel")->isEnabled(), rules);
    QTEST(dialog.job().scheduleMode, "back");
    if (rules)
        return;
    dialog.pressOk();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
}

void TestJobDialog::theModeCanBeChosen()
{
    const Dialog dialog;
    dialog.button("rulesRadio")->click();
    QVERIFY(!dialog.button("intervalRadio")->isChecked());
    QVERIFY(!dialog.spin("intervalSpin")->isEnabled());
    QVERIFY(dialog.part<QWidget>("rulesPanel")->isEnabled());
    QCOMPARE(dialog.job().scheduleMode, int(Rules));
    dialog.button("intervalRadio")->click();
    QVERIFY(!dialog.button("rulesRadio")->isChecked());
    QVERIFY(dialog.spin("intervalSpin")->isEnabled());
    QVERIFY(!dialog.part<QWidget>("rulesPanel")->isEnabled());
    QCOMPARE(dialog.job().scheduleMode, int(Interval));
}

// The rules

void TestJobDialog::theRuleList()
{
    const Dialog dialog(weeklyJob({makeRule(31, 524224, {0, 30}), makeRule(0), makeRule(1, 1)}));
    const QListWidget *list = dialog.list();
    QCOMPARE(list->count(), 3);
    QCOMPARE(list->currentRow(), 0);
    QCOMPARE(list->item(0)->text(), u"Weekdays 06:00, 06:30, 07:00 +23 more"_s);
    QCOMPARE(list->item(0)->toolTip(), u"130 runs per week."_s);
    QCOMPARE(list->item(0)->foreground(), QBrush());
    QCOMPARE(list->item(1)->text(), u"Never (nothing selected)"_s);
    QCOMPARE(list->item(1)->toolTip(), QString());
    QCOMPARE(list->item(1)->foreground().color(), QColor(0xC0, 0x30, 0x20));
    QCOMPARE(list->item(2)->toolTip(), u"1 run per week."_s);
}

void TestJobDialog::theRuleButtons()
{
    const Dialog one(weeklyJob({makeRule(1)}));
    QVERIFY(one.button("addRuleButton")->isEnabled());
    QVERIFY(one.button("editRuleButton")->isEnabled());
    QVERIFY(!one.button("removeRuleButton")->isEnabled());
    const Dialog two(weeklyJob({makeRule(1), makeRule(2)}));
    QVERIFY(two.button("removeRuleButton")->isEnabled());
    two.list()->setCurrentRow(-1);
    QVERIFY(two.button("addRuleButton")->isEnabled());
    QVERIFY(!two.button("editRuleButton")->isEnabled());
    QVERIFY(!two.button("removeRuleButton")->isEnabled());
    two.list()->setCurrentRow(1);
    QVERIFY(two.button("editRuleButton")->isEnabled());
    QVERIFY(two.button("removeRuleButton")->isEnabled());
}

void TestJobDialog::noRulesMeanTheDefaultRule()
{
    const Dialog dialog(weeklyJob({}));
    QCOMPARE(dialog.list()->count(), 1);
    QCOMPARE(dialog.list()->item(0)->text(), u"Every hour at :00"_s);
    QCOMPARE(storage(dialog.job().rules), QStringList(u"127:16777215:0"_s));
}

void TestJobDialog::proposedDays_data()
{
    QTest::addColumn<QList<ScheduleRule>>("rules");
    QTest::addColumn<int>("days");
    QTest::newRow("all covered") << QList<ScheduleRule>{makeRule(127)} << 127;
    QTest::newRow("Monday to Friday covered") << QList<ScheduleRule>{makeRule(31)} << 96;
    QTest::newRow("covered by several") << QList<ScheduleRule>{makeRule(1), makeRule(6)} << 120;
    QTest::newRow("all covered by several") << QList<ScheduleRule>{makeRule(31), makeRule(96)} << 127;
    QTest::newRow("an unusable rule covers too") << QList<ScheduleRule>{makeRule(31, 0)} << 96;
    QTest::newRow("nothing covered") << QList<ScheduleRule>{makeRule(0)} << 127;
}

void TestJobDialog::proposedDays()
{
    QFETCH(const QList<ScheduleRule>, rules);
    QFETCH(const int, days);
    const Dialog dialog(weeklyJob(rules));
    ScheduleRule proposed;
    {
        const RuleDialogVisit visit([&proposed](ScheduleRuleDialog *rule) {
            proposed = rule->rule();
            rule->reject();
        });
        dialog.button("addRuleButton")->click();
    }
    QCOMPARE(proposed.toStorage(), makeRule(static_cast<quint8>(days)).toStorage());
}

void TestJobDialog::addingARule()
{
    const Dialog dialog(weeklyJob({makeRule(31)}));
    {
        const RuleDialogVisit visit([&dialog](ScheduleRuleDialog *rule) {
            QCOMPARE(rule->parentWidget(), &dialog);
            rule->setHours(1U << 8);
            rule->accept();
        });
        dialog.button("addRuleButton")->click();
    }
    QCOMPARE(storage(dialog.job().rules), QStringList({u"31:16777215:0"_s, u"96:256:0"_s}));
    QCOMPARE(dialog.list()->count(), 2);
    QCOMPARE(dialog.list()->currentRow(), 1);
    QCOMPARE(dialog.list()->item(1)->text(), u"Weekends 08:00"_s);
    QVERIFY(dialog.button("removeRuleButton")->isEnabled());
    QVERIFY(dialog.preview().contains(u"(+1 more schedule)"_s));
}

void TestJobDialog::editingARule()
{
    const Dialog dialog(weeklyJob({makeRule(1), makeRule(2, 256, {15}), makeRule(4)}));
    dialog.list()->setCurrentRow(1);
    QString shown;
    {
        const RuleDialogVisit visit([&shown](ScheduleRuleDialog *rule) {
            shown = rule->rule().toStorage();
            rule->setDays(96);
            rule->accept();
        });
        dialog.button("editRuleButton")->click();
    }
    QCOMPARE(shown, u"2:256:15"_s);
    QCOMPARE(storage(dialog.job().rules),
             QStringList({u"1:16777215:0"_s, u"96:256:15"_s, u"4:16777215:0"_s}));
    QCOMPARE(dialog.list()->currentRow(), 1);
    QCOMPARE(dialog.list()->item(1)->text(), u"Weekends 08:15"_s);
}

void TestJobDialog::aDoubleClickEdits()
{
    Dialog dialog(weeklyJob({makeRule(1), makeRule(2)}));
    dialog.tabs()->setCurrentIndex(ScheduleTab);
    dialog.show();
    QString shown;
    {
        const RuleDialogVisit visit([&shown](ScheduleRuleDialog *rule) {
            shown = rule->rule().toStorage();
            rule->reject();
        });
        QWidget *viewport = dialog.list()->viewport();
        const QPoint spot = dialog.list()->visualItemRect(dialog.list()->item(1)).center();
        QTest::mouseClick(viewport, Qt::LeftButton, {}, spot);
        QTest::mouseDClick(viewport, Qt::LeftButton, {}, spot);
    }
    QCOMPARE(shown, u"2:16777215:0"_s);
}

void TestJobDialog::aCancelledRuleChangesNothing()
{
    const QList<ScheduleRule> rules = {makeRule(1), makeRule(2)};
    const Dialog dialog(weeklyJob(rules));
    dialog.list()->setCurrentRow(1);
    for (const char *name : {"addRuleButton", "editRuleButton"}) {
        const RuleDialogVisit visit([](ScheduleRuleDialog *rule) {
            rule->setDays(0);
            rule->reject();
        });
        dialog.button(name)->click();
    }
    QCOMPARE(storage(dialog.job().rules), storage(rules));
    QCOMPARE(dialog.list()->currentRow(), 1);
}

void TestJobDialog::removingRules()
{
    const Dialog dialog(weeklyJob({makeRule(1), makeRule(2), makeRule(4), makeRule(8)}));
    const auto remove = [&dialog](int row) {
        dialog.list()->setCurrentRow(row);
        dialog.button("removeRuleButton")->click();
        return dialog.list()->currentRow();
    };
    QCOMPARE(remove(1), 1); // the one behind it moves up
    QCOMPARE(storage(dialog.job().rules),
             QStringList({u"1:16777215:0"_s, u"4:16777215:0"_s, u"8:16777215:0"_s}));
    QCOMPARE(remove(2), 0); // behind the last there is none
    QCOMPARE(remove(0), 0);
    QCOMPARE(storage(dialog.job().rules), QStringList(u"4:16777215:0"_s));
    QCOMPARE(dialog.list()->count(), 1);
    QVERIFY(!dialog.button("removeRuleButton")->isEnabled());
}

void TestJobDialog::theLastRuleStays()
{
    const Dialog dialog(weeklyJob({makeRule(1)}));
    dialog.button("removeRuleButton")->setEnabled(true); // it guards the command, but not alone
    const MessageBoxAnswer answer(u"OK"_s);
    dialog.button("removeRuleButton")->click();
    QCOMPARE(answer.text(), kLastSchedule);
    QCOMPARE(answer.title(), kTitle);
    QCOMPARE(answer.icon(), QMessageBox::Information);
    QCOMPARE(answer.buttons(), QStringList(u"OK"_s));
    QCOMPARE(dialog.job().rules.size(), 1);
}

void TestJobDialog::withoutACurrentRuleNothingIsEditedOrRemoved()
{
    const QList<ScheduleRule> rules = {makeRule(1), makeRule(2)};
    const Dialog dialog(weeklyJob(rules));
    dialog.list()->setCurrentRow(-1);
    for (const char *name : {"removeRuleButton", "editRuleButton"}) {
        QVERIFY(!dialog.button(name)->isEnabled());
        dialog.button(name)->setEnabled(true); // it guards the command, but not alone
        dialog.button(name)->click();
        QCOMPARE(storage(dialog.job().rules), storage(rules));
    }
}

void TestJobDialog::aMendedRuleIsNoLongerRed()
{
    const Dialog dialog(weeklyJob({makeRule(0), makeRule(2)}));
    const QBrush usual = dialog.list()->item(1)->foreground();
    QVERIFY(dialog.list()->item(0)->foreground() != usual);
    {
        const RuleDialogVisit visit([](ScheduleRuleDialog *rule) {
            rule->setDays(1);
            rule->setHours(1);
            rule->accept();
        });
        dialog.button("editRuleButton")->click();
    }
    QCOMPARE(dialog.list()->item(0)->foreground(), usual);
    QCOMPARE(dialog.list()->item(0)->toolTip(), u"1 run per week."_s);
}

void TestJobDialog::fiveHundredRules()
{
    QList<ScheduleRule> rules;
    for (int i = 0; i < 500; ++i)
        rules += makeRule(static_cast<quint8>(1 + i % 127), 1U << (i % 24), {i % 60});
    Dialog dialog(weeklyJob(rules));
    dialog.show();
    QCOMPARE(dialog.size(), QSize(560, 470));
    QCOMPARE(dialog.list()->count(), 500);
    QVERIFY(dialog.preview().contains(u"(+499 more schedules)"_s));
    dialog.list()->setCurrentRow(499);
    dialog.button("removeRuleButton")->click();
    QCOMPARE(dialog.list()->currentRow(), 0);
    rules.removeLast();
    dialog.pressOk();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QCOMPARE(storage(dialog.job().rules), storage(rules));
}

// The preview

void TestJobDialog::thePreviewOfAnInterval()
{
    const Dialog dialog;
    const QString before = QDateTime::currentDateTime().toString(u"ddd d MMM HH:mm"_s);
    dialog.spin("intervalSpin")->setValue(120);
    const QString after = QDateTime::currentDateTime().toString(u"ddd d MMM HH:mm"_s);
    const auto expected = [](const QString &run) {
        return u"<b>Every 2 hour(s)</b><br>Runs every 120 minutes, measured from the end of the previous "
               "run.<br><span style='color:#555;'>Next: "_s +
               QStringList(4, run).join(u" &nbsp;|&nbsp; "_s) + u"</span>"_s;
    };
    QVERIFY2(dialog.preview() == expected(before) || dialog.preview() == expected(after),
             qPrintable(dialog.preview()));
    dialog.spin("intervalSpin")->setValue(1);
    QVERIFY(dialog.preview().startsWith(u"<b>Every 1 min</b><br>Runs every 1 minute, measured"_s));
}

void TestJobDialog::thePreviewOfRules()
{
    const SyncJob job = weeklyJob({makeRule(1, 256, {30}), makeRule(0), makeRule(16, 1), makeRule(64, 1)});
    const auto expected = [&job] {
        QStringList runs;
        for (const QDateTime &run : job.upcomingRuns(QDateTime::currentDateTime(), 4))
            runs += run.toString(u"ddd d MMM HH:mm"_s);
        return u"<b>Mon 08:30  (+2 more schedules)</b><br>3 schedules, 3 runs per week at most."
               "<br><span style='color:#555;'>Next: "_s +
               runs.join(u" &nbsp;|&nbsp; "_s) + u"</span>"_s;
    };
    const QString before = expected();
    const Dialog dialog(job);
    const QString after = expected();
    QVERIFY2(dialog.preview() == before || dialog.preview() == after, qPrintable(dialog.preview()));
    QCOMPARE(dialog.preview().count(u"&nbsp;|&nbsp;"_s), 3);
}

void TestJobDialog::thePreviewForgetsTheLastRun()
{
    SyncJob job = goodJob();
    job.lastRun = QDateTime::currentDateTime();
    job.intervalMins = 10080;
    const Dialog dialog(job);
    const QString inAWeek = job.lastRun.addDays(7).toString(u"d MMM"_s);
    QVERIFY(dialog.preview().contains(u"Next:"_s));
    QVERIFY(!dialog.preview().contains(inAWeek));
    QCOMPARE(dialog.job().lastRun, job.lastRun);
}

void TestJobDialog::thePreviewWarns()
{
    const Dialog dialog(weeklyJob({makeRule(0)}));
    QCOMPARE(dialog.preview(), kNothing);
    dialog.button("intervalRadio")->click();
    QVERIFY(dialog.preview().startsWith(u"<b>Every 1 hour(s)</b>"_s));
    dialog.button("rulesRadio")->click();
    QCOMPARE(dialog.preview(), kNothing);

    SyncJob unknown = weeklyJob({makeRule(0)});
    unknown.scheduleMode = 2;
    QCOMPARE(Dialog(unknown).preview(), kNothing);
}

void TestJobDialog::thePreviewFollows()
{
    const Dialog dialog(weeklyJob({makeRule(1, 256)}));
    QVERIFY(dialog.preview().startsWith(u"<b>Mon 08:00</b>"_s));
    {
        const RuleDialogVisit visit([](ScheduleRuleDialog *rule) {
            rule->setDays(127);
            rule->accept();
        });
        dialog.button("editRuleButton")->click();
    }
    QVERIFY(dialog.preview().startsWith(u"<b>Daily at 08:00</b>"_s));
    {
        const RuleDialogVisit visit([](ScheduleRuleDialog *rule) { rule->accept(); });
        dialog.button("addRuleButton")->click();
    }
    QVERIFY(dialog.preview().startsWith(u"<b>Daily at 08:00  (+1 more schedule)</b>"_s));
    dialog.list()->setCurrentRow(0);
    dialog.button("removeRuleButton")->click();
    QVERIFY(dialog.preview().startsWith(u"<b>Every hour at :00</b>"_s));
}

// Accepting

void TestJobDialog::refusals_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("warning");
    const QString blanks = u" \t\u00a0 "_s;
    QTest::newRow("all empty") << u""_s << u""_s << u""_s << kNoName;
    QTest::newRow("name of blanks") << blanks << u"h"_s << u"/l"_s << kNoName;
    QTest::newRow("no host, no folder") << u"n"_s << u""_s << u""_s << kNoHost;
    QTest::newRow("host of blanks") << u"n"_s << blanks << u"/l"_s << kNoHost;
    QTest::newRow("no folder") << u"n"_s << u"h"_s << u""_s << kNoFolder;
    QTest::newRow("folder of blanks") << u"n"_s << u"h"_s << blanks << kNoFolder;
    QTest::newRow("no usable rule") << u"n"_s << u"h"_s << u"/l"_s << kNoSchedule;
}

void TestJobDialog::refusals()
{
    QFETCH(const QString, name);
    QFETCH(const QString, host);
    QFETCH(const QString, folder);
    Dialog dialog(weeklyJob({makeRule(0), makeRule(1, 0)}));
    dialog.edit("nameEdit")->setText(name);
    dialog.edit("hostEdit")->setText(host);
    dialog.edit("localEdit")->setText(folder);
    dialog.tabs()->setCurrentIndex(SyncTab);
    dialog.show();
    {
        const MessageBoxAnswer answer(u"OK"_s);
        dialog.pressOk();
        QTEST(answer.text(), "warning");
        QCOMPARE(answer.title(), kTitle);
        QCOMPARE(answer.icon(), QMessageBox::Warning);
        QCOMPARE(answer.buttons(), QStringList(u"OK"_s));
    }
    QVERIFY(dialog.isVisible());
    QCOMPARE(dialog.result(), int(QDialog::Rejected));
    QCOMPARE(dialog.tabs()->currentIndex(), int(SyncTab));
    QCOMPARE(dialog.edit("nameEdit")->text(), name);
    QCOMPARE(dialog.edit("hostEdit")->text(), host);
    QCOMPARE(dialog.edit("localEdit")->text(), folder);
    QCOMPARE(dialog.list()->count(), 2);
}

void TestJobDialog::refusedOneAfterTheOther()
{
    Dialog dialog{SyncJob()};
    dialog.show();
    const auto refusal = [&dialog] {
        const MessageBoxAnswer answer(u"OK"_s);
        dialog.pressOk();
        return answer.text();
    };
    QCOMPARE(refusal(), kNoName);
    dialog.edit("nameEdit")->setText(u"alpha"_s);
    QCOMPARE(refusal(), kNoHost);
    dialog.edit("hostEdit")->setText(u"127.0.0.1"_s);
    QCOMPARE(refusal(), kNoFolder);
    dialog.edit("localEdit")->setText(u"/home/kim"_s);
    dialog.pressOk();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
}

void TestJobDialog::aRefusedNameGetsTheFocus()
{
    const auto focusAfterRefusal = [](const char *emptied) {
        Dialog dialog;
        dialog.edit(emptied)->setText(u"  "_s);
        dialog.show();
        dialog.edit("userEdit")->setFocus();
        const MessageBoxAnswer answer(u"OK"_s);
        dialog.pressOk();
        return dialog.focusWidget() ? dialog.focusWidget()->objectName() : QString();
    };
    QCOMPARE(focusAfterRefusal("nameEdit"), u"nameEdit"_s);
    QCOMPARE(focusAfterRefusal("hostEdit"), u"userEdit"_s);
    QCOMPARE(focusAfterRefusal("localEdit"), u"userEdit"_s);
}

void TestJobDialog::aRedRuleBesideAGoodOnePasses()
{
    Dialog dialog(weeklyJob({makeRule(0), makeRule(1)}));
    dialog.pressOk();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QCOMPARE(storage(dialog.job().rules), QStringList({u"0:16777215:0"_s, u"1:16777215:0"_s}));
}

void TestJobDialog::intervalsDoNotLookAtTheRules()
{
    SyncJob job = weeklyJob({makeRule(0)});
    job.scheduleMode = Interval;
    Dialog dialog(job);
    dialog.pressOk();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QCOMPARE(storage(dialog.job().rules), QStringList(u"0:16777215:0"_s));
}

void TestJobDialog::okAndCancel()
{
    Dialog accepted;
    accepted.show();
    QTest::mouseClick(accepted.standardButton(QDialogButtonBox::Ok), Qt::LeftButton);
    QCOMPARE(accepted.result(), int(QDialog::Accepted));
    QVERIFY(accepted.isHidden());

    Dialog cancelled{SyncJob()};
    cancelled.show();
    QTest::mouseClick(cancelled.standardButton(QDialogButtonBox::Cancel), Qt::LeftButton);
    QCOMPARE(cancelled.result(), int(QDialog::Rejected)); // without any question
    QVERIFY(cancelled.isHidden());
}

void TestJobDialog::keys()
{
    Dialog dialog;
    dialog.show();
    QLineEdit *name = dialog.edit("nameEdit");
    name->selectAll();
    QTest::keyClicks(name, u"typed"_s);
    QTest::keyClick(name, Qt::Key_Return);
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QCOMPARE(dialog.job().name, u"typed"_s);
    dialog.show();
    QTest::keyClick(&dialog, Qt::Key_Escape);
    QCOMPARE(dialog.result(), int(QDialog::Rejected));
}

// The folder chooser

void TestJobDialog::browsing_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<bool>("startsThere");
    QTest::newRow("nothing typed") << u""_s << false;
    QTest::newRow("blanks") << u"   "_s << false;
    QTest::newRow("a folder") << QDir::tempPath() << true;
}

void TestJobDialog::browsing()
{
    QFETCH(const QString, typed);
    QFETCH(const bool, startsThere);
    const QTemporaryDir target;
    const Dialog dialog;
    dialog.edit("localEdit")->setText(typed);
    bool came = false;
    QTimer::singleShot(0, &dialog, [&came, &target, startsThere] {
        auto *chooser = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        QVERIFY(chooser);
        came = true;
        const auto done = qScopeGuard([chooser] {
            if (chooser->isVisible())
                chooser->reject();
        });
        QCOMPARE(chooser->windowTitle(), u"Choose the local folder"_s);
        QCOMPARE(chooser->fileMode(), QFileDialog::Directory);
        QVERIFY(chooser->testOption(QFileDialog::ShowDirsOnly));
        QCOMPARE(chooser->directory().absolutePath(), startsThere ? QDir::tempPath() : QDir::homePath());
        chooser->findChild<QLineEdit *>(u"fileNameEdit"_s)->setText(target.path());
        chooser->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Open)->click();
    });
    dialog.button("browseButton")->click();
    QVERIFY(came);
    QCOMPARE(dialog.edit("localEdit")->text(), QDir::toNativeSeparators(target.path()));
}

void TestJobDialog::aCancelledBrowseChangesNothing()
{
    Dialog dialog;
    bool came = false;
    QTimer::singleShot(0, &dialog, [&came] {
        auto *chooser = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        QVERIFY(chooser);
        came = true;
        chooser->reject();
    });
    QVERIFY(QMetaObject::invokeMethod(&dialog, "onBrowseLocal"));
    QVERIFY(came);
    QCOMPARE(dialog.edit("localEdit")->text(), QDir::toNativeSeparators(goodJob().config.localDir));
}

// For everyone

void TestJobDialog::readableOnADarkDesktop()
{
    const QPalette usual = QApplication::palette();
    const auto restore = qScopeGuard([&usual] { QApplication::setPalette(usual); });
    QPalette dark = usual;
    dark.setColor(QPalette::Window, QColor(40, 40, 40));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        dark.setColor(role, Qt::white);
    QApplication::setPalette(dark);

    Dialog dialog(weeklyJob({makeRule(0)})); // the warning: nothing in it has a colour of its own
    dialog.tabs()->setCurrentIndex(ScheduleTab);
    dialog.show();
    auto *preview = dialog.part<QLabel>("schedulePreview");
    const QImage image = preview->grab().toImage();
    int darkest = 255;
    for (int y = 2; y < image.height() - 2; ++y) {
        for (int x = 2; x < image.width() - 2; ++x)
            darkest = std::min(darkest, qGray(image.pixel(x, y)));
    }
    QVERIFY(darkest < 64);
    QCOMPARE(image.pixelColor(image.width() / 2, 3), QColor(0xf4, 0xf7, 0xf6));
}

void TestJobDialog::everyFieldHasAName()
{
    const Dialog dialog;
    const struct
    {
        const char *field;
        QString label;
    } labels[] = {
        {"nameEdit", u"Job name:"_s},      {"hostEdit", u"Host:"_s},
        {"portSpin", u"Port:"_s},          {"userEdit", u"Username:"_s},
        {"passwordEdit", u"Password:"_s},  {"tlsBox", u"Security:"_s},
        {"timeoutSpin", u"Timeout:"_s},    {"remoteEdit", u"Remote folder:"_s},
        {"localEdit", u"Local folder:"_s}, {"excludeEdit", u"Exclude:"_s},
        {"syncModeCombo", u"Transfer:"_s}, {"compareCombo", u"Compare by:"_s},
    };
    for (const auto &l : labels) {
        auto *field = dialog.part<QWidget>(l.field);
        QCOMPARE(dialog.labelled(field), l.label);
        // A button's name is its own text, and a combo box is named by its relation to the label.
        if (!qobject_cast<QAbstractButton *>(field) && !qobject_cast<QComboBox *>(field))
            QCOMPARE(accessibleName(field), l.label);
    }
    QCOMPARE(accessibleName(dialog.button("browseButton")), u"Choose the local folder"_s);
    QCOMPARE(accessibleName(dialog.spin("intervalSpin")), u"Minutes between runs"_s);
    QCOMPARE(accessibleName(dialog.list()), u"Schedules"_s);
    for (QAbstractButton *button : dialog.findChildren<QAbstractButton *>()) {
        if (button->focusPolicy() & Qt::TabFocus)
            QVERIFY(!accessibleName(button).isEmpty());
    }
}

void TestJobDialog::theTabOrderFollowsTheEye()
{
    const Dialog dialog(weeklyJob({makeRule(1), makeRule(2)}));
    const QStringList expected = {
        u"nameEdit"_s,      u"enabledBox"_s,     u"hostEdit"_s,        u"portSpin"_s,      u"userEdit"_s,
        u"passwordEdit"_s,  u"tlsBox"_s,         u"timeoutSpin"_s,     u"remoteEdit"_s,    u"localEdit"_s,
        u"browseButton"_s,  u"excludeEdit"_s,    u"recursiveBox"_s,    u"syncModeCombo"_s, u"compareCombo"_s,
        u"deleteBox"_s,     u"intervalRadio"_s,  u"intervalSpin"_s,    u"rulesRadio"_s,    u"ruleList"_s,
        u"addRuleButton"_s, u"editRuleButton"_s, u"removeRuleButton"_s};
    QStringList order;
    for (const QWidget *widget = dialog.nextInFocusChain(); widget != &dialog;
         widget = widget->nextInFocusChain()) {
        if (expected.contains(widget->objectName()))
            order += widget->objectName();
    }
    QCOMPARE(order, expected);
}

void TestJobDialog::textsAreTranslated()
{
    MarkingTranslator translator("JobDialog");
    QCoreApplication::installTranslator(&translator);
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    const Dialog dialog(weeklyJob({makeRule(1, 1)}));
    QCOMPARE(dialog.windowTitle(), u'[' + kTitle + u']');
    for (int tab = 0; tab < dialog.tabs()->count(); ++tab)
        QVERIFY2(dialog.tabs()->tabText(tab).startsWith(u'['), qPrintable(dialog.tabs()->tabText(tab)));
    for (const char *name : {"syncModeCombo", "compareCombo"}) {
        for (int item = 0; item < dialog.combo(name)->count(); ++item)
            QVERIFY2(dialog.combo(name)->itemText(item).startsWith(u'['), name);
        QVERIFY(dialog.combo(name)->count() == 3);
    }
    for (const QGroupBox *box : dialog.findChildren<QGroupBox *>())
        QVERIFY2(box->title().startsWith(u'['), qPrintable(box->title()));
    QVERIFY(dialog.edit("nameEdit")->placeholderText().startsWith(u'['));
    QVERIFY(dialog.edit("hostEdit")->placeholderText().startsWith(u'['));
    QCOMPARE(dialog.edit("excludeEdit")->placeholderText(), u"[*.tmp; cache*; .htaccess]"_s);
    QCOMPARE(dialog.edit("remoteEdit")->placeholderText(), u"/public_html/recordings"_s);
    QCOMPARE(dialog.button("browseButton")->text(), u"..."_s);
    QCOMPARE(dialog.spin("timeoutSpin")->suffix(), u"[ seconds]"_s);
    QCOMPARE(dialog.spin("intervalSpin")->suffix(), u"[ minutes]"_s);
    QCOMPARE(dialog.list()->item(0)->toolTip(), u"[1 [run] per week.]"_s);
    QVERIFY(dialog.preview().startsWith(u"<b>Mon 00:00</b><br>1 schedule, 1 run per week at most.<br>"_s));
    QVERIFY(dialog.preview().contains(u"<br><span style='color:#555;'>[Next:] "_s));
    for (const QLabel *label : dialog.findChildren<QLabel *>()) {
        if (label->objectName() != "schedulePreview"_L1)
            QVERIFY2(label->text().startsWith(u'['), qPrintable(label->text()));
    }
    for (const char *name : {"enabledBox", "tlsBox", "recursiveBox", "deleteBox", "intervalRadio",
                             "rulesRadio", "addRuleButton", "editRuleButton", "removeRuleButton"})
        QVERIFY2(dialog.button(name)->text().startsWith(u'['), name);
    for (int mode = 0; mode < 3; ++mode) {
        dialog.combo("syncModeCombo")->setCurrentIndex(mode);
        QVERIFY2(dialog.modeText().startsWith(u'['), qPrintable(dialog.modeText()));
    }
}

void TestJobDialog::refusalsAreTranslated()
{
    MarkingTranslator translator("JobDialog");
    QCoreApplication::installTranslator(&translator);
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    Dialog dialog(weeklyJob({makeRule(0)}));
    QCOMPARE(dialog.preview(), u'[' + kNothing + u']');
    const auto refusal = [&dialog] {
        const MessageBoxAnswer answer(u"OK"_s);
        dialog.accept();
        return answer.text();
    };
    QCOMPARE(refusal(), u'[' + kNoSchedule + u']');
    dialog.edit("localEdit")->clear();
    QCOMPARE(refusal(), u'[' + kNoFolder + u']');
    dialog.edit("hostEdit")->clear();
    QCOMPARE(refusal(), u'[' + kNoHost + u']');
    dialog.edit("nameEdit")->clear();
    QCOMPARE(refusal(), u'[' + kNoName + u']');
    dialog.button("removeRuleButton")->setEnabled(true);
    const MessageBoxAnswer answer(u"OK"_s);
    dialog.button("removeRuleButton")->click();
    QCOMPARE(answer.text(), u'[' + kLastSchedule + u']');
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestJobDialog test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_JobDialog.moc"
