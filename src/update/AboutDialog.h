#pragma once

#include <QDialog>

class QLabel;

/** Which program this is, and whose. */
class AboutDialog : public QDialog
{
    Q_OBJECT

public:
    explicit AboutDialog(QWidget *parent = nullptr);

private:
    QLabel *buildLogo();
    QLabel *buildText(const QString &text);
    QLabel *buildLink(const QString &address);
};
