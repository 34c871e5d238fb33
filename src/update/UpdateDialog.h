#pragma once

#include <QDialog>

class QBoxLayout;
struct UpdateInfo;

/** Offers a newer version. The program downloads nothing itself: a web page is opened for it. */
class UpdateDialog : public QDialog
{
    Q_OBJECT

public:
    enum Choice : int { RemindLater, SkipVersion, Download };

    UpdateDialog(const UpdateInfo &info, const QString &currentVersion, QWidget *parent = nullptr);

    /** To be asked after exec(); RemindLater if the dialog was closed without a choice. */
    Choice choice() const { return chosen; }

private:
    QBoxLayout *buildHeader(const UpdateInfo &info, const QString &currentVersion);
    QWidget *buildNotes(const QString &notes);
    QWidget *buildNotesLink(const QString &address);
    QBoxLayout *buildButtonRow(const UpdateInfo &info);

    Choice chosen = RemindLater;
};
