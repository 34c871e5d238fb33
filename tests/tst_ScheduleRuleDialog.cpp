#include "dialogs/ScheduleRuleDialog.h"
#include "support/DialogVisit.h"
#include "support/MarkingTranslator.h"
#include "support/MessageBoxAnswer.h"
#include "support/TestSettings.h"

#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QMetaMethod>
#include <QPushButton>
#include <QScopeGuard>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace {

constexpr quint8 kEveryDay = 127;
constexpr quint32 kEveryHour = 16777215;

const QString kNothing =
    u"<b>Nothing selected.</b> Pick at least one day, one hour and one minute past the hour."_s;
const QString kNoDay = u"Select at least one day."_s;
const QString kNoHour = u"Select at least one hour."_s;
const QString kNoMinute = u"Enter at least one minute past the hour, for example 0 or 55."_s;

ScheduleRule makeRule(quint8 days, quint32 hours, const QList<int> &minutes)
{
    ScheduleRule rule;
    rule.days = days;
    rule.hours = hours;
    rule.minutes = minutes;
    return rule;
}

/** The dialog in a test's hands; a part that is missing ends the test program. */
class Dialog : public ScheduleRuleDialog
{
public:
    explicit Dialog(const ScheduleRule &rule = {}) : ScheduleRuleDialog(rule, nullptr) {}

    template <typename Part>
    Part *part(const QString &name) const
    {
        auto *found = findChild<Part *>(name);
        if (!found)
            qFatal("the dialog has no %s", qPrintable(name));
        return found;
    }

    QLineEdit *minutes() const { return part<QLineEdit>(u"minutesEdit"_s); }
    QCheckBox *day(int index) const { return part<QCheckBox>(u"dayBoxes%1"_s.arg(index)); }
    QCheckBox *hour(int index) const { return part<QCheckBox>(u"hourBoxes%1"_s.arg(index)); }
    QLabel *previewBox() const { return part<QLabel>(u"previewLabel"_s); }
    QString preview() const { return previewBox()->text(); }
    QList<QToolButton *> presets() const { return findChildren<QToolButton *>(); }
    QPushButton *button(QDialogButtonBox::StandardButton which) const
    {
        return findChild<QDialogButtonBox *>()->button(which);
    }
};

/** What the preview says of a usable rule at this moment. */
QString previewOf(const ScheduleRule &rule)
{
    QStringList runs;
    QDateTime cursor = QDateTime::currentDateTime();
    for (int i = 0; i < 4; ++i) {
        cursor = rule.nextAfter(cursor);
        runs += cursor.toString(u"ddd d MMM HH:mm"_s);
    }
    const int perWeek = rule.runsPerWeek();
    const QString count = QString::number(perWeek) + (perWeek == 1 ? u" run"_s : u" runs"_s);
    return u"<b>"_s + rule.label() + u"</b><br>"_s + count +
           u" per week.<br><span style='color:#555;'>Next: "_s + runs.join(u" &nbsp;|&nbsp; "_s) +
           u"</span>"_s;
}

QString accessibleName(QWidget *widget)
{
    return QAccessible::queryAccessibleInterface(widget)->text(QAccessible::Name);
}

} // namespace

class TestScheduleRuleDialog : public QObject
{
    Q_OBJECT

private slots:
    void theFrame();
    void theLayout();
    void theBoxes();
    void theMinutesField();
    void thePreviewBox();
    void noSignalsOrSlots();
    void opensWithTheRule_data();
    void opensWithTheRule();
    void eachBoxIsItsBit();
    void presets_data();
    void presets();
    void minuteTexts_data();
    void minuteTexts();
    void theFallBackIsOnTheHour();
    void masksHaveNoFallBack();
    void thePreviewShowsFourRuns_data();
    void thePreviewShowsFourRuns();
    void thePreviewOfTwoRunsAWeek();
    void thePreviewAsksForWhatIsMissing_data();
    void thePreviewAsksForWhatIsMissing();
    void thePreviewFollowsEveryChange();
    void thePreviewHasNoTimer();
    void refusals_data();
    void refusals();
    void oneRefusalAfterTheOther();
    void aRefusedMinuteGetsTheFocus();
    void aGoodNumberIsEnough();
    void okAndCancel();
    void keys();
    void readableOnADarkDesktop();
    void thePlaceholderFits();
    void everyFieldHasAName();
    void theTabOrderFollowsTheEye();
    void textsAreTranslated();
};

void TestScheduleRuleDialog::theFrame()
{
    const Dialog dialog;
    QCOMPARE(dialog.windowTitle(), u"Schedule"_s);
    QVERIFY(dialog.isModal());
    QCOMPARE(dialog.size(), QSize(540, 340));
    QCOMPARE(dialog.findChild<QDialogButtonBox *>()->standardButtons(),
             QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
}

void TestScheduleRuleDialog::theLayout()
{
    const Dialog dialog;
    const auto *layout = qobject_cast<QVBoxLayout *>(dialog.layout());
    QVERIFY(layout);
    QCOMPARE(layout->spacing(), 8);
    QCOMPARE(layout->count(), 6);
    // A row as it is seen: its widgets' texts from the left, a stretch as "|".
    const auto row = [layout](int index) {
        QStringList texts;
        const QLayout *cells = layout->itemAt(index)->layout();
        const auto *box = qobject_cast<const QBoxLayout *>(cells);
        for (int i = 0; i < cells->count(); ++i) {
            QWidget *widget = cells->itemAt(i)->widget();
            if (cells->itemAt(i)->spacerItem())
                texts += box->stretch(i) == 1 ? u"|"_s : u"?"_s;
            else if (widget)
                texts += widget->property("text").toString();
        }
        return texts.join(u' ');
    };
    QCOMPARE(row(0), u"Days: Mon Tue Wed Thu Fri Sat Sun | All Mon-Fri Sat/Sun"_s);
    QCOMPARE(layout->itemAt(0)->layout()->spacing(), 4);
    QCOMPARE(row(1), u"Hours: | All 06-18 None"_s);
    QCOMPARE(row(2), u"|"_s); // behind the grid
    QCOMPARE(row(3), u"Minutes past the hour: 0 |"_s);
    QCOMPARE(layout->itemAt(4)->widget(), dialog.previewBox());
    QCOMPARE(layout->itemAt(5)->widget(), dialog.findChild<QDialogButtonBox *>());

    const auto *grid = qobject_cast<QGridLayout *>(layout->itemAt(2)->layout()->itemAt(0)->layout());
    QVERIFY(grid);
    QCOMPARE(grid->horizontalSpacing(), 2);
    QCOMPARE(grid->verticalSpacing(), 2);
    QCOMPARE(grid->count(), 24);
    for (int hour = 0; hour < 24; ++hour)
        QCOMPARE(grid->itemAtPosition(hour / 12, hour % 12)->widget(), dialog.hour(hour));
}

void TestScheduleRuleDialog::theBoxes()
{
    const Dialog dialog;
    const QStringList days = {u"Mon"_s, u"Tue"_s, u"Wed"_s, u"Thu"_s, u"Fri"_s, u"Sat"_s, u"Sun"_s};
    for (int day = 0; day < 7; ++day)
        QCOMPARE(dialog.day(day)->text(), days.at(day));
    for (int hour = 0; hour < 24; ++hour) {
        QCOMPARE(dialog.hour(hour)->text(), QString::number(hour).rightJustified(2, u'0'));
        QCOMPARE(dialog.hour(hour)->maximumWidth(), 46);
    }
    QCOMPARE(dialog.findChildren<QCheckBox *>().size(), 31);
}

void TestScheduleRuleDialog::theMinutesField()
{
    const Dialog dialog;
    QCOMPARE(dialog.minutes()->maximumWidth(), 180);
    QCOMPARE(dialog.minutes()->placeholderText(), u"0    or    0, 30    or    55"_s);
}

void TestScheduleRuleDialog::thePreviewBox()
{
    const Dialog dialog;
    QVERIFY(dialog.previewBox()->wordWrap());
    QCOMPARE(dialog.previewBox()->textFormat(), Qt::RichText);
    QCOMPARE(dialog.previewBox()->minimumHeight(), 52);
    QCOMPARE(dialog.previewBox()->styleSheet(),
             u"QLabel { background:#f4f7f6; border:1px solid #d4dedb; border-radius:3px; padding:6px; }"_s);
}

void TestScheduleRuleDialog::noSignalsOrSlots()
{
    const QMetaObject &meta = ScheduleRuleDialog::staticMetaObject;
    QCOMPARE(QLatin1String(meta.className()), "ScheduleRuleDialog"_L1);
    QCOMPARE(meta.methodCount(), meta.methodOffset());
}

void TestScheduleRuleDialog::opensWithTheRule_data()
{
    QTest::addColumn<ScheduleRule>("rule");
    QTest::addColumn<QString>("minutes");
    QTest::newRow("the default") << ScheduleRule() << u"0"_s;
    QTest::newRow("two minutes") << makeRule(31, 524224, {0, 30}) << u"0, 30"_s;
    QTest::newRow("single bits") << makeRule(64, 1U << 23, {59}) << u"59"_s;
    QTest::newRow("alternating bits") << makeRule(0x55, 0xAAAAAA, {1, 2, 3}) << u"1, 2, 3"_s;
    QTest::newRow("no day and no hour") << makeRule(0, 0, {7}) << u"7"_s;
}

void TestScheduleRuleDialog::opensWithTheRule()
{
    QFETCH(const ScheduleRule, rule);
    const Dialog dialog(rule);
    QTEST(dialog.minutes()->text(), "minutes");
    QCOMPARE(dialog.daysMask(), rule.days);
    QCOMPARE(dialog.hoursMask(), rule.hours);
    QCOMPARE(dialog.rule().toStorage(), rule.toStorage());
}

void TestScheduleRuleDialog::eachBoxIsItsBit()
{
    const Dialog dialog(makeRule(0, 0, {0}));
    for (int day = 0; day < 7; ++day) {
        dialog.day(day)->click();
        QCOMPARE(dialog.rule().days, static_cast<quint8>(1U << day));
        dialog.day(day)->click();
    }
    for (int hour = 0; hour < 24; ++hour) {
        dialog.hour(hour)->click();
        QCOMPARE(dialog.rule().hours, 1U << hour);
        dialog.hour(hour)->click();
    }
}

void TestScheduleRuleDialog::presets_data()
{
    QTest::addColumn<int>("button");
    QTest::addColumn<QString>("text");
    QTest::addColumn<quint8>("days");
    QTest::addColumn<quint32>("hours");
    // What a preset leaves alone stays at Wednesday and 20 o'clock.
    const quint8 wednesday = 4;
    const quint32 eight = 1U << 20;
    QTest::newRow("all days") << 0 << u"All"_s << kEveryDay << eight;
    QTest::newRow("Monday to Friday") << 1 << u"Mon-Fri"_s << quint8(31) << eight;
    QTest::newRow("weekend") << 2 << u"Sat/Sun"_s << quint8(96) << eight;
    QTest::newRow("all hours") << 3 << u"All"_s << wednesday << kEveryHour;
    QTest::newRow("06 to 18") << 4 << u"06-18"_s << wednesday << quint32(524224);
    QTest::newRow("no hours") << 5 << u"None"_s << wednesday << quint32(0);
}

void TestScheduleRuleDialog::presets()
{
    QFETCH(const int, button);
    Dialog dialog(makeRule(4, 1U << 20, {0}));
    QCOMPARE(dialog.presets().size(), 6);
    QToolButton *preset = dialog.presets().at(button);
    QTEST(preset->text(), "text");
    preset->click();
    QTEST(dialog.daysMask(), "days");
    QTEST(dialog.hoursMask(), "hours");
    dialog.setDays(kEveryDay);
    dialog.setHours(kEveryHour);
    preset->click(); // from everything it comes to the same
    QFETCH(const quint8, days);
    QFETCH(const quint32, hours);
    QCOMPARE(dialog.daysMask(), button < 3 ? days : kEveryDay);
    QCOMPARE(dialog.hoursMask(), button < 3 ? kEveryHour : hours);
}

void TestScheduleRuleDialog::minuteTexts_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QList<int>>("minutes");
    const auto row = [](const char *what, const QString &text, const QList<int> &minutes) {
        QTest::newRow(what) << text << minutes;
    };
    row("mixed separators", u"55;5  5,,30"_s, {5, 30, 55});
    row("out of range alone", u"60"_s, {});
    row("out of range beside a good one", u"5, 99"_s, {5});
    row("good one between rubbish", u"75 x 3"_s, {3});
    row("both ends of the range", u"59 0"_s, {0, 59});
    row("negative", u"-1"_s, {});
    row("empty", u""_s, {});
    row("blanks", u"   \t "_s, {});
    row("separators only", u";"_s, {});
    row("many separators only", u" ,;, ;; "_s, {});
    row("separators at the ends", u",;7; ,"_s, {7});
    row("tabs", u"1\t2"_s, {1, 2});
    row("leading zero is decimal", u"010"_s, {10});
    row("hexadecimal is no number", u"0x10"_s, {});
    row("fraction", u"5.5"_s, {});
    row("other separators do not separate", u"5/10 5-10 5:10"_s, {});
    row("beyond 32 bits", u"99999999999 4294967301 8"_s, {8});
    row("words", u"every quarter"_s, {});
    row("unicode", u"пять ５ ٣ 😀 12"_s, {12});
    row("a no-break space around a number", u"\u00a05\u00a0,6"_s, {5, 6});
    row("10000 letters", QString(10000, u'x'), {});
    row("10000 digits", QString(10000, u'1'), {});
    row("5000 times the same", u"7 "_s.repeated(5000), {7});
    QString all;
    QList<int> each;
    for (int minute = 59; minute >= 0; --minute) {
        all += QString::number(minute) + u' ';
        each.prepend(minute);
    }
    row("all of them, backwards", all, each);
}

void TestScheduleRuleDialog::minuteTexts()
{
    QFETCH(const QString, text);
    QFETCH(const QList<int>, minutes);
    const Dialog dialog;
    dialog.minutes()->setText(text);
    QCOMPARE(dialog.minutes()->text(), text); // nothing is taken away from what was typed
    QCOMPARE(dialog.minuteList(), minutes);
    QCOMPARE(dialog.preview() == kNothing, minutes.isEmpty());
}

void TestScheduleRuleDialog::theFallBackIsOnTheHour()
{
    const Dialog dialog(makeRule(31, 256, {30}));
    dialog.minutes()->clear();
    QCOMPARE(dialog.preview(), kNothing);
    QCOMPARE(dialog.rule().toStorage(), u"31:256:0"_s);
}

void TestScheduleRuleDialog::masksHaveNoFallBack()
{
    const Dialog dialog(makeRule(0, 0, {30}));
    QCOMPARE(dialog.rule().toStorage(), u"0:0:30"_s);
}

void TestScheduleRuleDialog::thePreviewShowsFourRuns_data()
{
    QTest::addColumn<ScheduleRule>("rule");
    QTest::newRow("the default") << ScheduleRule();
    QTest::newRow("once a week") << makeRule(1, 1, {0});
    QTest::newRow("twice a week") << makeRule(3, 1, {0});
    QTest::newRow("twice an hour") << makeRule(31, 524224, {0, 30});
    QTest::newRow("the last minute of the week") << makeRule(64, 1U << 23, {59});
}

void TestScheduleRuleDialog::thePreviewShowsFourRuns()
{
    QFETCH(const ScheduleRule, rule);
    const Dialog dialog(rule);
    const QString before = previewOf(rule);
    dialog.minutes()->setText(dialog.minutes()->text() + u' '); // redrawn now
    const QString after = previewOf(rule);
    // The clock may pass an instant of the rule between the two.
    QVERIFY2(dialog.preview() == before || dialog.preview() == after, qPrintable(dialog.preview()));
    QCOMPARE(dialog.preview().count(u"&nbsp;|&nbsp;"_s), 3);
}

void TestScheduleRuleDialog::thePreviewOfTwoRunsAWeek()
{
    const Dialog dialog(makeRule(1, 1, {0}));
    QVERIFY(dialog.preview().startsWith(u"<b>Mon 00:00</b><br>1 run per week.<br>"_s));
    dialog.day(1)->click();
    QVERIFY(dialog.preview().startsWith(u"<b>Mon, Tue 00:00</b><br>2 runs per week.<br>"_s));
}

void TestScheduleRuleDialog::thePreviewAsksForWhatIsMissing_data()
{
    QTest::addColumn<ScheduleRule>("rule");
    QTest::newRow("a day") << makeRule(0, 1, {0});
    QTest::newRow("an hour") << makeRule(1, 0, {0});
    QTest::newRow("a minute") << makeRule(1, 1, {});
    QTest::newRow("everything") << makeRule(0, 0, {});
}

void TestScheduleRuleDialog::thePreviewAsksForWhatIsMissing()
{
    QFETCH(const ScheduleRule, rule);
    QCOMPARE(Dialog(rule).preview(), kNothing);
}

void TestScheduleRuleDialog::thePreviewFollowsEveryChange()
{
    const Dialog dialog(makeRule(1, 1, {0}));
    for (int day = 1; day < 7; ++day) {
        const QString before = dialog.preview();
        dialog.day(day)->click();
        QVERIFY(dialog.preview() != before);
    }
    for (int hour = 1; hour < 24; ++hour) {
        const QString before = dialog.preview();
        dialog.hour(hour)->click();
        QVERIFY(dialog.preview() != before);
    }
    QVERIFY(dialog.preview().startsWith(u"<b>Every hour at :00</b>"_s));
    dialog.minutes()->setText(u"15"_s);
    QVERIFY(dialog.preview().startsWith(u"<b>Every hour at :15</b>"_s));
    dialog.presets().at(5)->click();
    QCOMPARE(dialog.preview(), kNothing);
}

void TestScheduleRuleDialog::thePreviewHasNoTimer()
{
    const Dialog dialog;
    QVERIFY(dialog.findChildren<QTimer *>().isEmpty());
}

void TestScheduleRuleDialog::refusals_data()
{
    QTest::addColumn<ScheduleRule>("rule");
    QTest::addColumn<QString>("minutes");
    QTest::addColumn<QString>("warning");
    QTest::newRow("nothing at all") << makeRule(0, 0, {}) << u""_s << kNoDay;
    QTest::newRow("no day") << makeRule(0, 1, {0}) << u"0"_s << kNoDay;
    QTest::newRow("no hour, no minute") << makeRule(1, 0, {}) << u"x"_s << kNoHour;
    QTest::newRow("no hour") << makeRule(1, 0, {0}) << u"0"_s << kNoHour;
    QTest::newRow("no minute") << makeRule(1, 1, {}) << u""_s << kNoMinute;
    QTest::newRow("no good minute") << makeRule(1, 1, {0}) << u"60"_s << kNoMinute;
    QTest::newRow("separators only") << makeRule(1, 1, {0}) << u";"_s << kNoMinute;
}

void TestScheduleRuleDialog::refusals()
{
    QFETCH(const ScheduleRule, rule);
    QFETCH(const QString, minutes);
    Dialog dialog(rule);
    dialog.minutes()->setText(minutes);
    dialog.show();
    {
        dialog.day(0)->setFocus();
        const QWidget *boxParent = nullptr;
        const DialogVisit visit(u"Schedule"_s,
                                [&boxParent](QDialog *box) { boxParent = box->parentWidget(); });
        const MessageBoxAnswer answer(u"OK"_s);
        dialog.button(QDialogButtonBox::Ok)->click();
        QCOMPARE(boxParent, &dialog);
        QTEST(answer.text(), "warning");
        QCOMPARE(answer.title(), u"Schedule"_s);
        QCOMPARE(answer.icon(), QMessageBox::Warning);
        QCOMPARE(answer.buttons(), QStringList(u"OK"_s));
    }
    QVERIFY(dialog.isVisible());
    QCOMPARE(dialog.result(), int(QDialog::Rejected));
    QCOMPARE(dialog.minutes()->text(), minutes);
    QCOMPARE(dialog.daysMask(), rule.days);
    QCOMPARE(dialog.hoursMask(), rule.hours);
    QFETCH(const QString, warning);
    QCOMPARE(dialog.focusWidget() == dialog.minutes(), warning == kNoMinute);
}

void TestScheduleRuleDialog::oneRefusalAfterTheOther()
{
    Dialog dialog(makeRule(0, 0, {}));
    dialog.show();
    const auto refusal = [&dialog] {
        const MessageBoxAnswer answer(u"OK"_s);
        dialog.button(QDialogButtonBox::Ok)->click();
        return answer.text();
    };
    QCOMPARE(refusal(), kNoDay);
    dialog.day(3)->click();
    QCOMPARE(refusal(), kNoHour);
    dialog.hour(8)->click();
    QCOMPARE(refusal(), kNoMinute);
    dialog.minutes()->setText(u"30"_s);
    dialog.button(QDialogButtonBox::Ok)->click();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QCOMPARE(dialog.rule().toStorage(), u"8:256:30"_s);
}

void TestScheduleRuleDialog::aRefusedMinuteGetsTheFocus()
{
    Dialog dialog(makeRule(1, 1, {0}));
    dialog.minutes()->setText(u"60"_s);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowActive(&dialog));
    dialog.hour(5)->setFocus();
    {
        const MessageBoxAnswer answer(u"OK"_s);
        dialog.accept();
    }
    QCOMPARE(dialog.focusWidget(), dialog.minutes());
}

void TestScheduleRuleDialog::aGoodNumberIsEnough()
{
    Dialog dialog;
    dialog.minutes()->setText(u"75 x 3"_s);
    dialog.accept();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QCOMPARE(dialog.rule().minutes, QList<int>{3});
}

void TestScheduleRuleDialog::okAndCancel()
{
    Dialog accepted;
    accepted.show();
    QTest::mouseClick(accepted.button(QDialogButtonBox::Ok), Qt::LeftButton);
    QCOMPARE(accepted.result(), int(QDialog::Accepted));
    QVERIFY(accepted.isHidden());

    Dialog cancelled(makeRule(0, 0, {}));
    cancelled.show();
    QTest::mouseClick(cancelled.button(QDialogButtonBox::Cancel), Qt::LeftButton); // nothing is checked
    QCOMPARE(cancelled.result(), int(QDialog::Rejected));
    QVERIFY(cancelled.isHidden());
}

void TestScheduleRuleDialog::keys()
{
    Dialog dialog;
    dialog.show();
    QVERIFY(QTest::qWaitForWindowActive(&dialog));
    dialog.minutes()->setFocus();
    dialog.minutes()->selectAll();
    QTest::keyClicks(dialog.minutes(), u"10, 20"_s);
    QTest::keyClick(dialog.minutes(), Qt::Key_Return);
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QCOMPARE(dialog.rule().minutes, QList<int>({10, 20}));

    dialog.show();
    QTest::keyClick(&dialog, Qt::Key_Escape);
    QCOMPARE(dialog.result(), int(QDialog::Rejected));
    QVERIFY(dialog.isHidden());
}

void TestScheduleRuleDialog::readableOnADarkDesktop()
{
    const QPalette usual = QApplication::palette();
    const auto restore = qScopeGuard([&usual] { QApplication::setPalette(usual); });
    QPalette dark = usual;
    dark.setColor(QPalette::Window, QColor(40, 40, 40));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        dark.setColor(role, Qt::white);

    Dialog dialog;
    dialog.show();
    QApplication::setPalette(dark); // the desktop turns dark while the dialog is open
    QApplication::processEvents();
    const QImage image = dialog.previewBox()->grab().toImage();
    int darkest = 255;
    for (int y = 2; y < image.height() - 2; ++y) {
        for (int x = 2; x < image.width() - 2; ++x)
            darkest = std::min(darkest, qGray(image.pixel(x, y)));
    }
    QVERIFY(darkest < 64);
    QCOMPARE(image.pixelColor(image.width() / 2, 3), QColor(0xf4, 0xf7, 0xf6));
    QCOMPARE(Dialog().previewBox()->palette().color(QPalette::WindowText), QColor(Qt::black));
}

void TestScheduleRuleDialog::thePlaceholderFits()
{
    Dialog dialog;
    dialog.show();
    QCOMPARE(dialog.minutes()->width(), 180);
}

void TestScheduleRuleDialog::everyFieldHasAName()
{
    const Dialog dialog;
    QCOMPARE(accessibleName(dialog.minutes()), u"Minutes past the hour:"_s);
    QCOMPARE(accessibleName(dialog.day(0)), u"Mon"_s);
    QCOMPARE(accessibleName(dialog.hour(6)), u"Hours: 06"_s);
    QStringList presets;
    for (QToolButton *preset : dialog.presets())
        presets += accessibleName(preset);
    QCOMPARE(presets, QStringList({u"Days: All"_s, u"Days: Mon-Fri"_s, u"Days: Sat/Sun"_s, u"Hours: All"_s,
                                   u"Hours: 06-18"_s, u"Hours: None"_s}));
}

void TestScheduleRuleDialog::theTabOrderFollowsTheEye()
{
    Dialog dialog;
    dialog.show();
    const auto takesTab = [](const QWidget *widget) { return widget->focusPolicy() & Qt::TabFocus; };
    QList<QWidget *> order;
    for (QWidget *widget = dialog.nextInFocusChain(); widget != &dialog;
         widget = widget->nextInFocusChain()) {
        if (takesTab(widget))
            order += widget;
    }
    QList<QWidget *> expected;
    for (int day = 0; day < 7; ++day)
        expected += dialog.day(day);
    for (QToolButton *preset : dialog.presets())
        expected += preset;
    for (int hour = 0; hour < 24; ++hour)
        expected += dialog.hour(hour);
    expected += dialog.minutes();
    // Which of OK and Cancel is on the left is the desktop's matter.
    QCOMPARE(order.size(), expected.size() + 2);
    expected.removeIf([&takesTab](const QWidget *widget) { return !takesTab(widget); });
    QCOMPARE(order.mid(0, expected.size()), expected);
}

void TestScheduleRuleDialog::textsAreTranslated()
{
    MarkingTranslator translator("ScheduleRuleDialog");
    QCoreApplication::installTranslator(&translator);
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    Dialog dialog(makeRule(127, 256, {30}));
    QCOMPARE(dialog.windowTitle(), u"[Schedule]"_s);
    QCOMPARE(dialog.day(0)->text(), u"[Mon]"_s);
    QCOMPARE(dialog.day(6)->text(), u"[Sun]"_s);
    QCOMPARE(dialog.hour(0)->text(), u"00"_s);
    QCOMPARE(dialog.presets().at(1)->text(), u"[Mon-Fri]"_s);
    QCOMPARE(dialog.presets().at(4)->text(), u"[06-18]"_s);
    QCOMPARE(dialog.minutes()->placeholderText(), u"[0    or    0, 30    or    55]"_s);
    QVERIFY(dialog.preview().startsWith(u"<b>Daily at 08:30</b><br>[7 [runs] per week.]<br>"_s));
    QVERIFY(dialog.preview().contains(u"<br><span style='color:#555;'>[Next:] "_s));
    dialog.minutes()->clear();
    QCOMPARE(dialog.preview(), u'[' + kNothing + u']');
    const MessageBoxAnswer answer(u"OK"_s);
    dialog.accept();
    QCOMPARE(answer.text(), u'[' + kNoMinute + u']');
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestScheduleRuleDialog test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_ScheduleRuleDialog.moc"
