#include "support/MessageBoxAnswer.h"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QEvent>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

QString plainText(QString text) { return text.remove(u'&'); }

} // namespace

MessageBoxAnswer::MessageBoxAnswer(const QString &buttonText) : wanted(plainText(buttonText))
{
    QCoreApplication::instance()->installEventFilter(this);
}

MessageBoxAnswer::~MessageBoxAnswer()
{
    if (!came)
        QTest::qFail("no message box came", __FILE__, __LINE__);
}

bool MessageBoxAnswer::eventFilter(QObject *watched, QEvent *event)
{
    auto *box = event->type() == QEvent::Show ? qobject_cast<QMessageBox *>(watched) : nullptr;
    if (box && !came) {
        came = true;
        // Queued, since the box runs its event loop only once it is up.
        QMetaObject::invokeMethod(
            this,
            [this, shown = QPointer<QMessageBox>(box)] {
                if (shown)
                    answer(shown);
            },
            Qt::QueuedConnection);
    }
    return QObject::eventFilter(watched, event);
}

void MessageBoxAnswer::answer(QMessageBox *box)
{
    boxTitle = box->windowTitle();
    boxText = box->text();
    boxIcon = box->icon();
    QAbstractButton *match = nullptr;
    for (QAbstractButton *button : box->buttons()) {
        const QString text = plainText(button->text());
        boxButtons += text;
        if (text == wanted)
            match = button;
    }
    if (match) {
        match->click();
        return;
    }
    const QString problem = u"the message box \"%1\" has no button \"%2\", only: %3"_s.arg(
        boxText, wanted, boxButtons.join(u", "_s));
    QTest::qFail(qPrintable(problem), __FILE__, __LINE__);
    box->done(QMessageBox::NoButton);
}
