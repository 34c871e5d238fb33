#include "app/MainWindow.h"
#include "panel/VfdPanel.h"

#include <QApplication>
#include <QEvent>
#include <QIcon>
#include <QPointer>
#include <QSocketNotifier>
#include <QSslSocket>
#include <QThread>

#include <cerrno>
#include <cstdlib>

#ifdef Q_OS_UNIX
#include <csignal>
#include <fcntl.h>
#include <unistd.h>
#endif

using namespace Qt::StringLiterals;

namespace {

/** Sees to it that the end of the desktop's session closes the window for good, shown or in the tray. */
class DesktopQuit : public QObject
{
public:
    explicit DesktopQuit(MainWindow *mainWindow) : window(mainWindow) {}

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Quit && watched == QCoreApplication::instance())
            window->quit(); // the application itself closes visible windows only
        return false;
    }

private:
    MainWindow *window;
};

#ifdef Q_OS_UNIX

int signalPipe[2] = {-1, -1};

void noteSignal(int /*number*/)
{
    const int savedErrno = errno;
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
    errno = savedErrno;
}

/** SIGTERM and SIGINT close the program in the event loop: a handler may do next to nothing itself. */
void closeOnSignals(MainWindow *window)
{
    if (::pipe(signalPipe) != 0)
        return;
    for (const int end : signalPipe) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
        ::fcntl(end, F_SETFL, O_NONBLOCK);
    }
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, window);
    QObject::connect(notifier, &QSocketNotifier::activated, window, [window, notifier] {
        notifier->setEnabled(false);
        window->quit();
    });
    struct sigaction action = {};
    action.sa_handler = noteSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
}

#else

void closeOnSignals(MainWindow * /*window*/) {}

#endif

} // namespace

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QCoreApplication::setOrganizationName(u"Orrinvale"_s);
    QCoreApplication::setOrganizationDomain(QStringLiteral(KELPWHARF_DOMAIN));
    QCoreApplication::setApplicationName(u"Kelpwharf"_s);
    QCoreApplication::setApplicationVersion(QStringLiteral(KELPWHARF_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral(KELPWHARF_ID));
    QGuiApplication::setWindowIcon(QIcon(u":/Kelpwharf.png"_s));
    QGuiApplication::setQuitOnLastWindowClosed(false);

    VfdPanel::nameFontStandIns();

    int status = 0;
    QPointer<QThread> workerThread;
    {
        MainWindow window;
        workerThread = window.findChild<QThread *>();
        window.show();
        if (!QSslSocket::supportsSsl())
            window.setWindowTitle(window.windowTitle() + u"  (no TLS support)"_s);
        closeOnSignals(&window);
        DesktopQuit desktopQuit(&window);
        application.installEventFilter(&desktopQuit);
        status = QApplication::exec();
    }
    // The window leaves the thread behind only if a silent server holds it in a wait still. Nothing in
    // the process may be taken down under its feet, so the process ends as it stands.
    if (workerThread)
        std::_Exit(status);
    return status;
}
