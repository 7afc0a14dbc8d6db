// The tunnel's up and down scripts, run as OpenVPN runs them, each case in a private mount
// namespace whose /etc is a copy-on-write overlay. The systemd-resolved case runs a real
// systemd-resolved (unpacked by scripts/setup.sh, never installed: installing it takes the
// machine's /etc/resolv.conf over) in namespaces of its own with a private system bus.
#include "HMTestEnvironment.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

class HMDNSScriptsTest : public QObject
{
    Q_OBJECT

private:
    // Where an unpacked systemd-resolved lives, or empty.
    static QString resolvedRoot()
    {
        for (const QString &root :
             {qEnvironmentVariable("HM_RESOLVED_ROOT"),
              QStringLiteral("/opt/hollowmere-test/systemd-resolved"), QStringLiteral("/")}) {
            if (!root.isEmpty() &&
                QFileInfo(root + "/lib/systemd/systemd-resolved").isExecutable() &&
                QFileInfo(root + "/usr/bin/resolvectl").isExecutable()) {
                return root;
            }
        }
        return {};
    }

    // Runs `setup` then `steps` in a fresh overlay; returns their standard output. The
    // machine's own systemd-resolved, if any, is hidden so that the resolver file is used.
    QString runCase(const QString &setup, const QString &steps, int *exitCode)
    {
        return run("mount -t tmpfs tmpfs /run/systemd 2>/dev/null || true\n" + setup, steps,
                   {"--mount"}, exitCode);
    }

    QString run(const QString &setup, const QString &steps, const QStringList &namespaces,
                int *exitCode)
    {
        QTemporaryDir dir;
        const QString scripts = HMTestEnvironment::sourceDir() + "/packaging/openvpn";
        const QString script = QStringLiteral(R"SH(set -eu
mkdir -p "$W/upper" "$W/work" "$W/state"
mount --make-rprivate /
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
        shell.start(HMTestEnvironment::findProgram("unshare"), QStringList(namespaces)
                                                                   << "sh"
                                                                   << "-c" << script);
        shell.waitForFinished(20000);
        if (shell.exitCode() != 0) {
            qWarning().noquote() << shell.readAllStandardError();
        }
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

    // The tunnel's link gets the pushed name servers and "~." (every name goes there) with
    // the pushed domain, the resolvers in force before are saved for the DNS proxy, the
    // resolver file is left alone, and going down gives the link back as it was.
    void resolvedGetsTheTunnelsLinkAndGivesItBack()
    {
        const QString root = resolvedRoot();
        if (root.isEmpty()) {
            QSKIP("no systemd-resolved to run: scripts/setup.sh unpacks it to "
                  "/opt/hollowmere-test/systemd-resolved (or set HM_RESOLVED_ROOT)");
        }
        if (HMTestEnvironment::findProgram("dbus-daemon").isEmpty() ||
            HMTestEnvironment::findProgram("ip").isEmpty()) {
            QSKIP("needs dbus-daemon and ip to give systemd-resolved a bus and a tunnel link");
        }
        const QString setup = QStringLiteral(R"SH(R="%1"
ip link set lo up
ip tuntap add dev tun0 mode tun
ip link set tun0 up
mount -t tmpfs tmpfs /run
mkdir -p /run/dbus /run/systemd/resolve
grep -q '^systemd-resolve:' /etc/passwd ||
    echo 'systemd-resolve:x:990:990::/run/systemd:/usr/sbin/nologin' >>/etc/passwd
grep -q '^systemd-resolve:' /etc/group || echo 'systemd-resolve:x:990:' >>/etc/group
chown systemd-resolve: /run/systemd/resolve
mkdir -p /etc/systemd
printf '[Resolve]\nDNS=192.0.2.1\nDNSStubListener=no\n' >/etc/systemd/resolved.conf
printf 'nameserver 192.0.2.77\n' >/etc/resolv.conf
[ "$R" = / ] || mount -t overlay overlay -o "lowerdir=$R/usr/bin:/usr/bin" /usr/bin
cat >"$W/bus.conf" <<'BUS'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/> <allow own="*"/> <allow send_destination="*"/> <allow receive_sender="*"/>
  </policy>
</busconfig>
BUS
dbus-daemon --config-file="$W/bus.conf" --fork --nopidfile
"$R/lib/systemd/systemd-resolved" >"$W/resolved.log" 2>&1 &
i=0
until resolvectl status >/dev/null 2>&1; do
    i=$((i + 1))
    [ $i -lt 100 ] || { cat "$W/resolved.log" >&2; exit 1; }
    sleep 0.1
done
link() {
    resolvectl dns tun0; resolvectl domain tun0; resolvectl default-route tun0
    busctl get-property org.freedesktop.resolve1 /org/freedesktop/resolve1 \
        org.freedesktop.resolve1.Manager Domains
}
)SH")
                                  .arg(root);
        const QString steps =
            "link; echo --; up; link; cat \"$W/state/resolvers.original\"; show; echo --; "
            "down; link; ls \"$W/state\"; show";
        int exitCode = -1;
        const QString output =
            run(setup, steps, {"--mount", "--net", "--pid", "--fork", "--mount-proc"}, &exitCode);
        QCOMPARE(exitCode, 0);
        QCOMPARE(output, QStringLiteral("Link 2 (tun0):\n"
                                        "Link 2 (tun0):\n"
                                        "Link 2 (tun0): no\n"
                                        "a(isb) 0\n"
                                        "--\n"
                                        "Link 2 (tun0): 10.0.0.1 10.0.0.2\n"
                                        "Link 2 (tun0): ~. corp.example\n"
                                        "Link 2 (tun0): yes\n"
                                        "a(isb) 2 2 \".\" true 2 \"corp.example\" false\n"
                                        "nameserver 192.0.2.1\n"
                                        "nameserver 192.0.2.77\n"
                                        "--\n"
                                        "Link 2 (tun0):\n"
                                        "Link 2 (tun0):\n"
                                        "Link 2 (tun0): no\n"
                                        "a(isb) 0\n"
                                        "nameserver 192.0.2.77\n"));
    }
};

QTEST_GUILESS_MAIN(HMDNSScriptsTest)
#include "HMDNSScriptsTest.moc"
