#include "support/DialogVisit.h"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QEvent>
#include <QTest>

using namespace Qt::StringLiterals;

DialogVisit::DialogVisit(const QString &windowTitle, const std::function<void(QDialog *dialog)> &visit) :
    title(windowTitle), action(visit)
{
    QCoreApplication::instance()->installEventFilter(this);
}

DialogVisit::~DialogVisit()
{
    if (!came)
        QTest::qFail(qPrintable(u"no dialog \"%1\" came"_s.arg(title)), __FILE__, __LINE__);
}

bool DialogVisit::eventFilter(QObject *watched, QEvent *event)
{
    auto *dialog = event->type() == QEvent::Show ? qobject_cast<QDialog *>(watched) : nullptr;
    if (dialog && !came && dialog->windowTitle() == title) {
        came = true;
        // Queued, since the dialog runs its event loop only once it is up.
        QMetaObject::invokeMethod(
            this, [this, shown = QPointer<QDialog>(dialog)] { meet(shown); }, Qt::QueuedConnection);
    }
    return QObject::eventFilter(watched, event);
}

void DialogVisit::meet(const QPointer<QDialog> &dialog)
{
    if (!dialog)
        return;
    action(dialog);
    if (dialog && dialog->isVisible()) {
        QTest::qFail(qPrintable(u"the dialog \"%1\" has stayed open"_s.arg(title)), __FILE__, __LINE__);
        dialog->reject();
    }
}

void clickButton(const QWidget *dialog, const QString &text)
{
    for (auto *button : dialog->findChildren<QAbstractButton *>()) {
        if (button->text().remove(u'&') == text && button->isVisible()) {
            QTest::mouseClick(button, Qt::LeftButton);
            return;
        }
    }
    qFatal("the dialog has no button %s", qPrintable(text));
}
