#pragma once

#include <QDialog>
#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>

/**
 * Does something with the next dialog of a title as soon as that is up, inside its event loop.
 *
 * To be made before the dialog comes. It fails the test if none has come when it goes out of scope,
 * or if the dialog is still open after the visit; it is closed then, so that no test hangs.
 */
class DialogVisit : public QObject
{
    Q_OBJECT

public:
    DialogVisit(const QString &windowTitle, const std::function<void(QDialog *dialog)> &visit);
    ~DialogVisit() override;

    bool hasCome() const { return came; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void meet(const QPointer<QDialog> &dialog);

    QString title;
    std::function<void(QDialog *)> action;
    bool came = false;
};

/** A part of a dialog by its name; one that is missing ends the test program. */
template <typename Part>
Part *partOf(const QWidget *dialog, const char *name)
{
    auto *found = dialog->findChild<Part *>(QLatin1String(name));
    if (!found)
        qFatal("the dialog has no %s", name);
    return found;
}

/** Clicks the button of this text with the mouse. */
void clickButton(const QWidget *dialog, const QString &text);
