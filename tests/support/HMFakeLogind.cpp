// hm-fake-logind: the part of logind's Manager the application uses, for tests, on the
// session bus: Inhibit hands out the write end of a pipe (the inhibitor), InhibitorHeld
// tells whether any handed-out end is still open somewhere, and Sleep(bool) emits
// PrepareForSleep as logind does around a suspend.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusUnixFileDescriptor>
#include <QList>
#include <cstdio>
#include <poll.h>
#include <unistd.h>

class HMFakeLogind : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")
public:
    ~HMFakeLogind() override
    {
        for (int fd : std::as_const(m_readEnds)) {
            ::close(fd);
        }
    }

public Q_SLOTS:
    QDBusUnixFileDescriptor Inhibit(const QString &, const QString &, const QString &,
                                    const QString &)
    {
        int fds[2];
        if (::pipe(fds) != 0) {
            return {};
        }
        m_readEnds << fds[0];
        QDBusUnixFileDescriptor handed(fds[1]); // duplicates it
        ::close(fds[1]);
        return handed;
    }
    bool InhibitorHeld()
    {
        for (int fd : std::as_const(m_readEnds)) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 0) == 0) {
                return true; // no hang-up yet: the write end is open
            }
        }
        return false;
    }
    void Sleep(bool sleeping) { Q_EMIT PrepareForSleep(sleeping); }

Q_SIGNALS:
    void PrepareForSleep(bool start);

private:
    QList<int> m_readEnds;
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    HMFakeLogind logind;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QStringLiteral("/org/freedesktop/login1"), &logind,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals) ||
        !bus.registerService(QStringLiteral("org.freedesktop.login1"))) {
        std::fprintf(stderr, "hm-fake-logind: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    return app.exec();
}

#include "HMFakeLogind.moc"
