#pragma once

#include <QMessageBox>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

/**
 * Presses a button of the next message box as soon as that is up, and notes what the box said.
 *
 * To be made before the box comes. It fails the test if none has come when it goes out of scope,
 * or if the box has no such button; a box that nobody can answer is closed, so that no test hangs.
 */
class MessageBoxAnswer : public QObject
{
    Q_OBJECT

public:
    /** @param buttonText the text of the button, with or without its "&" */
    explicit MessageBoxAnswer(const QString &buttonText);
    ~MessageBoxAnswer() override;

    bool hasCome() const { return came; }
    QString title() const { return boxTitle; }
    QString text() const { return boxText; }
    QMessageBox::Icon icon() const { return boxIcon; }
    QStringList buttons() const { return boxButtons; } ///< texts without "&", in the box's order

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void answer(QMessageBox *box);

    QString wanted;
    bool came = false;
    QString boxTitle = {};
    QString boxText = {};
    QMessageBox::Icon boxIcon = QMessageBox::NoIcon;
    QStringList boxButtons = {};
};
