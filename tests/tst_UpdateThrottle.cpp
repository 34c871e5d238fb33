#include "update/UpdateThrottle.h"

#include <QDateTime>
#include <QTest>
#include <QTimeZone>

using namespace Qt::StringLiterals;

class TestUpdateThrottle : public QObject
{
    Q_OBJECT

private slots:
    void aCheckIsDueAfterTwentyHours_data();
    void aCheckIsDueAfterTwentyHours();
    void neverCheckedIsDue();
    void hoursAreCountedAcrossAChangeOfTheClocks_data();
    void hoursAreCountedAcrossAChangeOfTheClocks();
};

void TestUpdateThrottle::aCheckIsDueAfterTwentyHours_data()
{
    QTest::addColumn<qint64>("secsAgo");
    QTest::addColumn<bool>("isDue");
    const auto row = [](const char *what, qint64 secsAgo, bool isDue) {
        QTest::newRow(what) << secsAgo << isDue;
    };
    row("just now", 0, false);
    row("19 hours", 68400, false);
    row("a second short of 20 hours", 71999, false);
    row("20 hours", 72000, true);
    row("a year, as after the clock was set forward", 31536000, true);
    row("a second ahead, as after the clock was set back", -1, false);
    row("20 hours ahead", -72000, false);
    row("a century ahead", -3155760000, false);
}

void TestUpdateThrottle::aCheckIsDueAfterTwentyHours()
{
    QFETCH(const qint64, secsAgo);
    QFETCH(const bool, isDue);
    const QDateTime now(QDate(2026, 11, 2), QTime(12, 0));

    QCOMPARE(isUpdateCheckDue(now.addSecs(-secsAgo), now), isDue);
}

void TestUpdateThrottle::neverCheckedIsDue()
{
    QVERIFY(isUpdateCheckDue(QDateTime(), QDateTime::currentDateTime()));
}

void TestUpdateThrottle::hoursAreCountedAcrossAChangeOfTheClocks_data()
{
    QTest::addColumn<QDateTime>("lastCheck");
    QTest::addColumn<QDateTime>("now");
    QTest::addColumn<bool>("isDue");
    const QTimeZone zone("Europe/Berlin");
    QVERIFY(zone.isValid());
    const auto row = [&zone](const char *what, QDate lastDay, QTime lastTime, QTime time, bool isDue) {
        QTest::newRow(what) << QDateTime(lastDay, lastTime, zone) << QDateTime(lastDay.addDays(1), time, zone)
                            << isDue;
    };
    row("spring, 20 hours by the wall", QDate(2026, 3, 28), QTime(16, 0), QTime(12, 0), false);
    row("spring, 20 hours in truth", QDate(2026, 3, 28), QTime(16, 0), QTime(13, 0), true);
    row("autumn, 19 hours by the wall", QDate(2026, 10, 24), QTime(16, 0), QTime(11, 0), true);
    row("autumn, 19 hours in truth", QDate(2026, 10, 24), QTime(16, 0), QTime(10, 0), false);
}

void TestUpdateThrottle::hoursAreCountedAcrossAChangeOfTheClocks()
{
    QFETCH(const QDateTime, lastCheck);
    QFETCH(const QDateTime, now);
    QFETCH(const bool, isDue);

    QCOMPARE(isUpdateCheckDue(lastCheck, now), isDue);
}

QTEST_GUILESS_MAIN(TestUpdateThrottle)
#include "tst_UpdateThrottle.moc"
