#include "HMDeploymentValues.h"
#include "HMLogCapture.h"
#include "HMTestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

class HMDeploymentValuesTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_home;
    QTemporaryDir m_systemDir;

    QString userFile() const
    {
        return qEnvironmentVariable("XDG_CONFIG_HOME") + "/hollowmere/deployment.json";
    }
    QString systemFile() const { return m_systemDir.path() + "/hollowmere/deployment.json"; }

    // Test documents are written with single quotes to keep them readable.
    static QByteArray json(const char *text) { return QByteArray(text).replace('\'', '"'); }

    static void write(const QString &path, const QByteArray &content)
    {
        QVERIFY(HMTestEnvironment::writeFile(path, content));
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_home = HMTestEnvironment::isolateUserDirectories();
        qputenv("XDG_CONFIG_DIRS", m_systemDir.path().toUtf8());
    }

    void cleanup()
    {
        QFile::remove(userFile());
        QFile::remove(systemFile());
    }

    void builtInValuesWithoutAnyFile()
    {
        const HMDeploymentValues values = HMDeploymentValues::loadFromSearchPath();
        const HMDeploymentValues builtIn = HMDeploymentValues::builtIn();
        QCOMPARE(values.serviceDomain(), builtIn.serviceDomain());
        QCOMPARE(values.webSiteRoot(), builtIn.webSiteRoot());
        QVERIFY(values.sources().isEmpty());
        QVERIFY(!builtIn.serviceDomain().isEmpty());
        QVERIFY(builtIn.webSiteRoot().startsWith("https://"));
    }

    // Each file overrides only the keys it names: user over system over built in.
    void userFileWinsOverSystemFile()
    {
        write(systemFile(),
              json("{'serviceDomain': 'system.test', 'staticHost': 'files.system.test'}"));
        write(userFile(),
              json("{'serviceDomain': 'user.test', 'webSiteRoot': 'https://www.user.test/'}"));
        const HMDeploymentValues values = HMDeploymentValues::loadFromSearchPath();
        QCOMPARE(values.serviceDomain(), QStringLiteral("user.test"));
        QCOMPARE(values.webSiteRoot(), QStringLiteral("https://www.user.test"));
        QCOMPARE(values.staticHost(), QStringLiteral("files.system.test"));
        QCOMPARE(values.helpHost(), HMDeploymentValues::builtIn().helpHost());
        QCOMPARE(values.sources(), (QStringList{systemFile(), userFile()}));
    }

    void badFileIsIgnoredWhole_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("malformed") << QByteArray("{\"serviceDomain\": \"a.test\",");
        QTest::newRow("array") << json("['a.test']");
        QTest::newRow("number for host") << json("{'staticHost': 12}");
        QTest::newRow("null host") << json("{'serviceDomain': 'a.test', 'helpHost': null}");
        QTest::newRow("scheme in host") << json("{'serviceDomain': 'https://a.test'}");
        QTest::newRow("port in host") << json("{'serviceDomain': 'a.test:8443'}");
        QTest::newRow("empty host") << json("{'streamingHost': ''}");
        QTest::newRow("empty label in host") << json("{'serviceDomain': 'a..test'}");
        QTest::newRow("host ends in a hyphen") << json("{'serviceDomain': 'a.test-'}");
        QTest::newRow("host starts with a dot") << json("{'staticHost': '.a.test'}");
        QTest::newRow("non-ASCII host") << QByteArray("{\"serviceDomain\": \"b\u00fccher.test\"}");
        QTest::newRow("site root without scheme")
            << json("{'serviceDomain': 'a.test', 'webSiteRoot': 'www.a.test'}");
        QTest::newRow("site root ftp") << json("{'webSiteRoot': 'ftp://www.a.test'}");
        QTest::newRow("site root with query") << json("{'webSiteRoot': 'https://www.a.test/?x=1'}");
    }

    void badFileIsIgnoredWhole()
    {
        QFETCH(QByteArray, content);
        write(systemFile(), json("{'serviceDomain': 'system.test'}"));
        write(userFile(), content);
        HMLogCapture log;
        const HMDeploymentValues values = HMDeploymentValues::loadFromSearchPath();
        QCOMPARE(values.serviceDomain(), QStringLiteral("system.test"));
        QCOMPARE(values.staticHost(), HMDeploymentValues::builtIn().staticHost());
        QCOMPARE(values.sources(), QStringList{systemFile()});
        QVERIFY2(log.contains("Ignoring deployment file " + userFile()),
                 qPrintable(log.lines().join('\n')));
    }
};

QTEST_GUILESS_MAIN(HMDeploymentValuesTest)
#include "HMDeploymentValuesTest.moc"
