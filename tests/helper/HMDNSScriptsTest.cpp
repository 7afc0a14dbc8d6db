// The tunnel's up and down scripts, run the way OpenVPN runs them, against an /etc of their
// own: each case gets a private mount namespace whose /etc is a copy-on-write overlay, so
// /etc/resolv.conf can be a file, a link or missing without the machine's own changing.
#include "HMTestEnvironment.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

class HMDNSScriptsTest : public QObject
{
    Q_OBJECT

private:
    // Runs `setup` then `steps` in a fresh overlay; returns their standard output.
    QString runCase(const QString &setup, const QString &steps, int *exitCode)
    {
        QTemporaryDir dir;
        const QString scripts = HMTestEnvironment::sourceDir() + "/packaging/openvpn";
        const QString script = QStringLiteral(R"SH(set -eu
mkdir -p "$W/upper" "$W/work" "$W/state"
mount -t overlay overlay -o "lowerdir=/etc,upperdir=$W/upper,workdir=$W/work" /etc
flags="-m -w -d -aradsgnwADSGNW"
up() {
    env -i foreign_option_1="dhcp-option DNS 10.0.0.1" foreign_option_2="dhcp-option DOMAIN corp.example" \
        foreign_option_3="dhcp-option DNS 10.0.0.2" HM_STATE_DIR="$W/state" \
        "$S/client.up.tunnelblick.sh" $flags tun0 1500 1500 10.8.0.2 255.255.255.0 "${1:-init}" >/dev/null
}
down() {
    env -i HM_STATE_DIR="$W/state" "$S/client.down.tunnelblick.sh" $flags tun0 1500 1500 10.8.0.2 255.255.255.0 init >/dev/null
}
show() {
    if [ -L /etc/resolv.conf ]; then echo "link $(readlink /etc/resolv.conf)"
    elif [ -e /etc/resolv.conf ]; then cat /etc/resolv.conf
    else echo absent; fi
}
%1
%2
)SH")
                                   .arg(setup, steps);
        QProcess shell;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("W", dir.path());
        environment.insert("S", scripts);
        shell.setProcessEnvironment(environment);
        shell.start(HMTestEnvironment::findProgram("unshare"), {"--mount", "sh", "-c", script});
        shell.waitForFinished(20000);
        *exitCode = shell.exitCode();
        return QString::fromUtf8(shell.readAllStandardOutput());
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!HMTestEnvironment::isRoot() || HMTestEnvironment::findProgram("unshare").isEmpty()) {
            QSKIP("needs root and unshare for a private /etc");
        }
    }

    void resolverFileIsReplacedAndRestored_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QString>("expected");

        const QString ours =
            "# Written by Hollowmere for the tunnel tun0; put back when it goes down\n"
            "search corp.example\nnameserver 10.0.0.1\nnameserver 10.0.0.2\n";
        const QString file = "printf 'nameserver 192.0.2.1\\noptions edns0\\n' >/etc/resolv.conf";
        QTest::newRow("file") << file << "up; show; echo --; down; show"
                              << ours + "--\nnameserver 192.0.2.1\noptions edns0\n";
        QTest::newRow("link to a resolver's file")
            << "rm -f /etc/resolv.conf; ln -s ../run/resolver/stub.conf /etc/resolv.conf"
            << "up; show; echo --; down; show" << ours + "--\nlink ../run/resolver/stub.conf\n";
        QTest::newRow("missing") << "rm -f /etc/resolv.conf"
                                 << "up; show; echo --; down; show" << ours + "--\nabsent\n";
        QTest::newRow("restarted tunnel keeps the first saved copy")
            << file << "up; up restart; down; show"
            << "nameserver 192.0.2.1\noptions edns0\n";
        QTest::newRow("rewritten by someone else while up")
            << file
            << "up; echo 'nameserver 192.0.2.99' >/etc/resolv.conf; down; show; ls \"$W/state\""
            << "nameserver 192.0.2.99\n";
        QTest::newRow("no name servers given")
            << file
            << "env -i HM_STATE_DIR=\"$W/state\" \"$S/client.up.tunnelblick.sh\" $flags tun0 1500 "
               "1500 a b init "
               ">/dev/null; show; ls \"$W/state\""
            << "nameserver 192.0.2.1\noptions edns0\n";
        // What the DNS proxy asks for names kept out of the tunnel; a restart must not save
        // the tunnel's own resolver file as the original.
        QTest::newRow("original resolvers saved for the DNS proxy, loopback left out")
            << "printf 'nameserver 127.0.0.53\\nnameserver 192.0.2.1\\nnameserver "
               "fd00::1\\nnameserver 192.0.2.2\\n' >/etc/resolv.conf"
            << "up; up restart; cat \"$W/state/resolvers.original\"; down; ls \"$W/state\""
            << "nameserver 192.0.2.1\nnameserver 192.0.2.2\n";
        QTest::newRow("down without up") << file << "down; show"
                                         << "nameserver 192.0.2.1\noptions edns0\n";
        // A tunnel whose name servers could not be set must not come up quietly.
        QTest::newRow("up fails when the file cannot be written")
            << QString(file + "; chattr +i /etc/resolv.conf 2>/dev/null || "
                              "mount -o bind,ro /etc/resolv.conf /etc/resolv.conf")
            << "if up; then echo up-succeeded; else echo up-failed; fi; show"
            << "up-failed\nnameserver 192.0.2.1\noptions edns0\n";
    }

    void resolverFileIsReplacedAndRestored()
    {
        QFETCH(QString, setup);
        QFETCH(QString, steps);
        QFETCH(QString, expected);
        int exitCode = -1;
        const QString output = runCase(setup, steps, &exitCode);
        QCOMPARE(exitCode, 0);
        QCOMPARE(output, expected);
    }
};

QTEST_GUILESS_MAIN(HMDNSScriptsTest)
#include "HMDNSScriptsTest.moc"
