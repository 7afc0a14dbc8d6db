#include "HMAPITestBed.h"
#include "HMBundleInfo.h"
#include "HMException.h"
#include "HMManualClock.h"
#include "HMNotificationCenter.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QtTest>

using HMAPICall = std::function<void(HMAPIClient &, const HMAPICompletion &)>;
using HMPageCall = std::function<void(HMAPIClient &)>;
Q_DECLARE_METATYPE(HMAPICall)
Q_DECLARE_METATYPE(HMPageCall)

// The request path of the API client against the reference service: what goes on the
// wire for each endpoint, how every kind of reply comes back, the time-out, and the small
// pieces around them (version string, pages, normalisation). Clients start healthy here;
// the health check has a suite of its own.
class HMAPIClientTest : public QObject
{
    Q_OBJECT

private:
    HMAPITestBed m_bed;
    HMManualClock m_clock;
    HMNotificationCenter m_center;

    std::unique_ptr<HMAPIClient> healthyClient()
    {
        auto client = m_bed.makeClient(m_clock, m_center);
        client->setStatus(HMAPIStatusHealthy);
        return client;
    }

private Q_SLOTS:
    void initTestCase()
    {
        HM_START_API_TEST_BED(m_bed);
        m_bed.service.putAccount({{"username", "ann@example.test"}, {"password", "p&ss w=rd"}});
    }

    void init()
    {
        m_bed.service.clearFaults();
        m_bed.service.clearRequests();
    }

    void replies_data()
    {
        QTest::addColumn<int>("method");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QVariantMap>("reply");
        QTest::addColumn<QString>("domain");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("description");

        const QString app = HMError::kAppDomain;
        const QString url = HMAPIClient::kURLLoadingDomain;
        const QString actingUp = QStringLiteral("Hollowmere server is acting up");
        const QVariantMap none;
        // Bodies are written with single quotes to stay readable.
        auto json = [](const char *body, int status = 200) {
            return QJsonObject{{"status", status},
                               {"body", QString::fromLatin1(body).replace('\'', '"')}};
        };
        auto page = [](int status) {
            return QJsonObject{{"status", status},
                               {"contentType", "text/html"},
                               {"body", "<html><body>Oops</body></html>"}};
        };
        const int get = HMAPIMethodGET;
        const int post = HMAPIMethodPOST;

        QTest::newRow("result in capitals")
            << post << "/x" << json("{'result':'OK','n':1}")
            << QVariantMap{{"status", "ok"}, {"n", 1}} << "" << 0 << "";
        QTest::newRow("status and result")
            << post << "/x" << json("{'status':'FAIL','result':'Ok'}")
            << QVariantMap{{"status", "ok"}} << "" << 0 << "";
        QTest::newRow("status lower-cased")
            << get << "/x" << json("{'status':'PASS','details':'T'}")
            << QVariantMap{{"status", "pass"}, {"details", "T"}} << "" << 0 << "";
        QTest::newRow("status of the wrong type")
            << post << "/x" << json("{'status':null,'result':{'a':1}}")
            << QVariantMap{{"status", ""}} << "" << 0 << "";
        QTest::newRow("dictionary with status 404")
            << get << "/x" << json("{'status':'error'}", 404) << QVariantMap{{"status", "error"}}
            << "" << 0 << "";
        QTest::newRow("HTML page, 404")
            << get << "/x" << page(404) << none << app << 404 << actingUp;
        QTest::newRow("HTML page, 503")
            << post << "/x" << page(503) << none << app << 1 << actingUp;
        QTest::newRow("HTML page, 200") << get << "/x" << page(200) << none << app << 1 << actingUp;
        QTest::newRow("status 500 with a dictionary")
            << post << "/x" << json("{'status':'ok'}", 500) << none << url << -1011
            << "Bad Server Response.";
        QTest::newRow("JSON array")
            << post << "/x" << json("[{'status':'ok'}]") << none << app << 1 << actingUp;
        QTest::newRow("malformed JSON")
            << post << "/x" << json("{'status':'ok',") << none << url << -1017
            << "The data couldn't be read because it isn't in the correct format.";
        QTest::newRow("empty JSON body")
            << post << "/x" << json("") << none << app << 1 << actingUp;
        QTest::newRow("dropped mid-reply")
            << post << "/x" << QJsonObject{{"drop", true}, {"body", "{\"sta"}} << none << url
            << -1005 << "The network connection was lost.";
        QTest::newRow("50 MB body")
            << get << "/x" << QJsonObject{{"bodyBytes", 50 * 1024 * 1024}, {"fill", "{"}} << none
            << url << -1103 << "The requested resource exceeds the maximum size.";
        QTest::newRow("status probe, bare ok") << get << "/core/status" << json("ok")
                                               << QVariantMap{{"response", "ok"}} << "" << 0 << "";
        QTest::newRow("status probe, text with status 500")
            << get << "/core/status" << json("down", 500) << QVariantMap{{"response", "down"}} << ""
            << 0 << "";
        QTest::newRow("status probe, plain text type")
            << get << "/core/status" << QJsonObject{{"contentType", "text/plain"}, {"body", "ok"}}
            << none << app << 1 << actingUp;
        QTest::newRow("status probe, empty JSON body")
            << get << "/core/status" << json("") << none << app << 1 << actingUp;
        QTest::newRow("status path by POST gets no text rule")
            << post << "/core/status" << json("ok") << none << url << -1017
            << "The data couldn't be read because it isn't in the correct format.";
    }

    void replies()
    {
        QFETCH(int, method);
        QFETCH(QString, path);
        QFETCH(QJsonObject, fault);
        QFETCH(QVariantMap, reply);
        QFETCH(QString, domain);
        QFETCH(int, code);
        QFETCH(QString, description);
        fault.insert("path", path);
        m_bed.service.addFault(fault);
        auto client = healthyClient();
        client->setStatus(HMAPIStatusBlocked);
        HMAPIResult result;
        client->performRequestWithRoot(0, path, method, {{"k", "v"}}, result.completion());
        QTRY_VERIFY_WITH_TIMEOUT(result.done, 20000);
        if (description.isEmpty()) {
            QVERIFY2(!result.error, qPrintable(result.errorText()));
            QCOMPARE(result.reply, reply);
        } else {
            QVERIFY(result.error);
            QVERIFY(result.reply.isEmpty());
            QCOMPARE(result.error->domain(), domain);
            QCOMPARE(result.error->code(), long(code));
            QCOMPARE(result.error->localizedDescription(), description);
            if (domain == HMError::kAppDomain) {
                QCOMPARE(result.error->failureReason(), QStringLiteral("Please bear with us"));
            }
        }
        // Only a dictionary clears the blocked state.
        const bool dictionary = description.isEmpty() && !reply.contains("response");
        QCOMPARE(client->status(), int(dictionary ? HMAPIStatusHealthy : HMAPIStatusBlocked));
    }

    void connectionRefused()
    {
        auto client = healthyClient();
        client->setAPIRoot(0, "https://127.0.0.2");
        HMAPIResult result;
        client->performRequestWithRoot(0, "/x", HMAPIMethodPOST, {}, result.completion());
        QTRY_VERIFY(result.done);
        QCOMPARE(result.error->code(), -1004L);
        QCOMPARE(result.error->domain(), HMAPIClient::kURLLoadingDomain);
    }

    void requestTimesOutAfterSixtySeconds()
    {
        m_bed.service.addFault({{"path", "/core/getLoginToken"}, {"delayMs", 30000}});
        auto client = healthyClient();
        HMAPIResult result;
        client->getLoginTokenWithUsername("ann@example.test", "p&ss w=rd", result.completion());
        QTRY_COMPARE(m_bed.service.requestsTo("/core/getLoginToken").size(), 1);
        m_clock.advance(HMAPIClient::kRequestTimeoutMs - 1);
        QTest::qWait(50);
        QVERIFY(!result.done);
        m_clock.advance(1);
        QTRY_VERIFY(result.done);
        QCOMPARE(result.error->localizedDescription(), QStringLiteral("The operation timed out."));
        QCOMPARE(result.error->code(), -1001L);
        QCOMPARE(result.error->domain(), HMAPIClient::kURLLoadingDomain);
        // A finished request leaves no timer behind.
        HMAPIResult quick;
        client->getStatusWithCompletion(quick.completion());
        QTRY_VERIFY(quick.done);
        QCOMPARE(m_clock.pendingTimers(), 0);
    }

    void invalidMethodThrows()
    {
        auto client = m_bed.makeClient(m_clock, m_center);
        for (int method : {2, -1}) {
            bool called = false;
            try {
                client->performRequestWithRoot(
                    0, "/x", method, {},
                    [&called](const QVariantMap &, const HMMaybeError &) { called = true; });
                QFAIL("no exception");
            } catch (const HMException &exception) {
                QCOMPARE(exception.name(), QStringLiteral("Invalid method"));
                QCOMPARE(exception.reason(), QStringLiteral("Invalid HTTP method"));
            }
            QVERIFY(!called);
        }
        QVERIFY_THROWS_EXCEPTION(HMException, client->doCallAPI(0, "/x", 7, {}, nullptr));
        QCOMPARE(client->status(), int(HMAPIStatusUnknown));
    }

    void formBodyKeepsOrderAndEscapes()
    {
        auto client = healthyClient();
        HMAPIResult result;
        client->loginWithUsername("ann+1@example.test", "p&ss w=rd;/?:@$,", "3", "UU-ID", true,
                                  result.completion());
        QTRY_VERIFY(result.done);
        const QJsonObject request = m_bed.service.requestsTo("/core/register").first().toObject();
        QCOMPARE(request.value("contentType").toString(),
                 QStringLiteral("application/x-www-form-urlencoded"));
        QCOMPARE(
            request.value("body").toString(),
            "json=true&user=ann%2B1%40example.test&password=p%26ss%20w%3Drd%3B%2F%3F%3A%40%24%2C"
            "&deviceId=UU-ID&getToken=1&v=" +
                QUrl::toPercentEncoding(HMAPIClient::versionString(), "!'()*") + "&country=3");
    }

    void endpoints_data()
    {
        QTest::addColumn<HMAPICall>("call");
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("listener");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QJsonObject>("params");
        const auto row = [](const char *name, HMAPICall call, const char *method,
                            const char *listener, const char *path, const QJsonObject &params) {
            QTest::newRow(name) << call << QString(method) << QString(listener) << QString(path)
                                << params;
        };
        const QString user = "u@x.test";
        const QString pw = "pw";
        const QJsonObject credentials{{"username", user}, {"password", pw}};
        const auto with = [&credentials](const QJsonObject &more) {
            QJsonObject all = credentials;
            for (auto it = more.begin(); it != more.end(); ++it) {
                all.insert(it.key(), it.value());
            }
            return all;
        };
        const QString v = HMAPIClient::versionString();
        row("sign-in",
            [=](auto &c, auto done) { c.loginWithUsername(user, pw, "-1", "D", false, done); },
            "POST", "api", "/core/register",
            {{"json", "true"},
             {"user", user},
             {"password", pw},
             {"deviceId", "D"},
             {"getToken", "0"},
             {"v", v},
             {"country", "-1"}});
        row("create account",
            [=](auto &c, auto done) { c.addAccountWithUsername(user, pw, "Ann", "Lee", done); },
            "POST", "api", "/core/createAccount",
            {{"json", "true"},
             {"email", user},
             {"password", pw},
             {"firstName", "Ann"},
             {"lastName", "Lee"},
             {"v", v}});
        row("twitter id", [=](auto &c, auto done) { c.updateTwitterID("42", user, pw, done); },
            "POST", "api", "/core/twitter/updateId",
            {{"user", user}, {"password", pw}, {"id", "42"}});
        row("VPN-connected probe", [](auto &c, auto done) { c.isVPNConnectedWithCompletion(done); },
            "GET", "api-http", "/core/isVPNConnected", {});
        row("resend confirmation",
            [=](auto &c, auto done) { c.resendVerificationEmailWithUsername(user, pw, done); },
            "POST", "api", "/core/resendConfirmationEmail", {{"email", user}, {"password", pw}});
        row(
            "web token", [=](auto &c, auto done) { c.getLoginTokenWithUsername(user, pw, done); },
            "POST", "api", "/core/getLoginToken", credentials);
        row(
            "one filter",
            [=](auto &c, auto done) { c.getPrivacyFilter("facebook", user, pw, done); }, "GET",
            "api", "/dashboard/getFilter", with({{"filter", "facebook"}}));
        row(
            "all filters",
            [=](auto &c, auto done) { c.getPrivacyFilterStateWithUsername(user, pw, done); }, "GET",
            "api", "/dashboard/getFilter", credentials);
        row(
            "set one filter",
            [=](auto &c, auto done) { c.setPrivacyFilter("twitter", true, user, pw, done); }, "GET",
            "api", "/dashboard/setFilter", with({{"filter", "twitter"}, {"on", "1"}}));
        row(
            "set all filters",
            [=](auto &c, auto done) { c.setAllPrivacyFiltersEnabled(false, user, pw, done); },
            "GET", "api", "/dashboard/setFilter", with({{"on", "0"}}));
        row("status probe", [](auto &c, auto done) { c.getStatusWithCompletion(done); }, "GET",
            "api", "/core/status", {});
        row("fallback file", [](auto &c, auto done) { c.getConfigIpsWithCompletion(done); }, "GET",
            "static", "/hollowmere/fallroot/config.json", {});
    }

    void endpoints()
    {
        QFETCH(HMAPICall, call);
        QFETCH(QString, method);
        QFETCH(QString, listener);
        QFETCH(QString, path);
        QFETCH(QJsonObject, params);
        auto client = healthyClient();
        HMAPIResult result;
        call(*client, result.completion());
        QTRY_VERIFY(result.done);
        const QJsonArray requests = m_bed.service.requests();
        QCOMPARE(requests.size(), 1);
        const QJsonObject request = requests.first().toObject();
        QCOMPARE(request.value("method").toString(), method);
        QCOMPARE(request.value("listener").toString(), listener);
        QCOMPARE(request.value("path").toString(), path);
        QCOMPARE(request.value("params").toObject(), params);
        if (method == "GET" && !params.isEmpty()) {
            // Query pairs go in the order listed, the password in clear on the stream root.
            const QStringList names = request.value("target").toString().section('?', 1).split('&');
            QCOMPARE(names.first().section('=', 0, 0), QStringLiteral("username"));
            QCOMPARE(names.at(1).section('=', 0, 0), QStringLiteral("password"));
        }
    }

    void uploadIsMultipartWithAnAttachment()
    {
        QByteArray archive(300 * 1024, '\0');
        for (int i = 0; i < archive.size(); ++i) {
            archive[i] = char((i * 7) % 251);
        }
        auto client = healthyClient();
        HMAPIResult result;
        client->uploadLogData(archive, "It \"broke\"\r\nagain", QString(), result.completion());
        QTRY_VERIFY(result.done);
        QVERIFY2(!result.error, qPrintable(result.errorText()));
        QCOMPARE(result.reply.value("status").toString(), QStringLiteral("ok"));
        const QJsonArray uploads = m_bed.service.uploads();
        QCOMPARE(uploads.size(), 1);
        const QJsonObject upload = uploads.first().toObject();
        QVERIFY2(QRegularExpression("^multipart/form-data; boundary=[^\" ]+$")
                     .match(upload.value("contentType").toString())
                     .hasMatch(),
                 qPrintable(upload.value("contentType").toString()));
        QCOMPARE(upload.value("feedback").toString(), QStringLiteral("It \"broke\"\r\nagain"));
        QCOMPARE(upload.value("username").toString(), QStringLiteral("unknown"));
        QCOMPARE(upload.value("v").toString(), HMAPIClient::versionString());
        const QJsonArray parts = upload.value("parts").toArray();
        QCOMPARE(parts.size(), 4);
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(parts.at(i).toObject().value("disposition").toString(),
                     QStringLiteral("form-data"));
        }
        const QJsonObject file = parts.at(3).toObject();
        QCOMPARE(file.value("name").toString(), QStringLiteral("data"));
        QCOMPARE(file.value("disposition").toString(), QStringLiteral("attachment"));
        QCOMPARE(file.value("contentType").toString(), QStringLiteral("application/octet-stream"));
        QVERIFY2(QRegularExpression("^userfile-?\\d+[0-9a-f]+\\.zip$")
                     .match(file.value("filename").toString())
                     .hasMatch(),
                 qPrintable(file.value("filename").toString()));
        QCOMPARE(m_bed.service.uploadData(0), archive);

        HMAPIResult named;
        client->uploadLogData("zip", "", "ann@example.test", named.completion());
        QTRY_VERIFY(named.done);
        QCOMPARE(m_bed.service.uploads().last().toObject().value("username").toString(),
                 QStringLiteral("ann@example.test"));
    }

    void pages_data()
    {
        QTest::addColumn<HMPageCall>("open");
        QTest::addColumn<QString>("url");
        const auto row = [](const char *name, HMPageCall open, const char *url) {
            QTest::newRow(name) << open << QString(url);
        };
        row(
            "forgot password", [](auto &c) { c.openForgotPasswordWithEmail("ann+1@example.test"); },
            "https://www.hollowmere.test/passwordReset?email=ann%2B1%40example.test");
        row(
            "forgot password, no address", [](auto &c) { c.openForgotPasswordWithEmail(""); },
            "https://www.hollowmere.test/passwordReset?");
        row(
            "account", [](auto &c) { c.openAccountURLWithToken("t/k=n"); },
            "https://www.hollowmere.test/account?token=t%2Fk%3Dn");
        row(
            "with token",
            [](auto &c) { c.openURLWithToken("https://www.hollowmere.test/upgrade", "abc"); },
            "https://www.hollowmere.test/upgrade?token=abc");
        // The help host comes from the deployment values, not the site root.
        row(
            "help", [](auto &c) { c.openHelpURL(); }, "http://help.hollowmere.test/");
        row(
            "any address", [](auto &c) { c.openURL("https://example.test/a?b=%20c"); },
            "https://example.test/a?b=%20c");
    }

    void pages()
    {
        QFETCH(HMPageCall, open);
        QFETCH(QString, url);
        auto client = m_bed.makeClient(m_clock, m_center);
        QList<QUrl> opened;
        client->setURLOpener([&opened](const QUrl &address) {
            opened.append(address);
            return true;
        });
        open(*client);
        QCOMPARE(opened.size(), 1);
        QCOMPARE(opened.first().toString(QUrl::FullyEncoded), url);
        // Pages never touch the service.
        QCOMPARE(m_bed.service.requests().size(), 0);
    }

    void fallrootHealthIsAnnouncedOnlyByTheCheckSetter()
    {
        auto client = m_bed.makeClient(m_clock, m_center);
        QStringList heard; // each announcement with the health its observer reads then
        const auto note = [&](const QString &what) {
            heard << what + (client->isFallrootHealthy() ? " healthy" : " unhealthy");
        };
        connect(client.get(), &HMAPIClient::willChangeValueForKey, this,
                [&](const QString &key) { note("will " + key); });
        connect(client.get(), &HMAPIClient::didChangeValueForKey, this,
                [&](const QString &key) { note("did " + key); });
        connect(client.get(), &HMAPIClient::isFallrootHealthyChanged, this,
                [&] { note("changed"); });
        QVERIFY(client->isFallrootHealthy());
        client->setStatus(HMAPIStatusBlocked);
        QVERIFY(!client->isFallrootHealthy());
        QCOMPARE(heard, QStringList());
        client->setCheckStatus(HMAPIStatusHealthy);
        QCOMPARE(heard, (QStringList{"will isFallrootHealthy unhealthy",
                                     "did isFallrootHealthy healthy", "changed healthy"}));
        client->setCheckStatus(HMAPIStatusChecking);
        QVERIFY(!client->isFallrootHealthy());
        client->setStatus(HMAPIStatusUnknown);
        QVERIFY(client->isFallrootHealthy());
    }

    void versionString_data()
    {
        QTest::addColumn<QByteArray>("productName");
        QTest::addColumn<QByteArray>("osRelease");
        QTest::addColumn<QString>("pattern");
        const QString app = QRegularExpression::escape(app_version());
        QTest::newRow("model and release")
            << QByteArray("ThinkPad X1 Carbon Gen 9\n")
            << QByteArray("NAME=\"Debian GNU/Linux\"\nID=debian\nVERSION_ID=\"12\"\n")
            << "^m" + app + "/ThinkPad X1 Carbon Gen 9/debian-12$";
        QTest::newRow("slashes kept apart")
            << QByteArray("Board A/B") << QByteArray("ID='my/os'\nVERSION_ID=1.2\n")
            << "^m" + app + "/Board A-B/my-os-1\\.2$";
        QTest::newRow("no model, rolling release")
            << QByteArray("  \n") << QByteArray("ID=arch\n")
            << "^m" + app + "/" + QRegularExpression::escape(platform_id()) + "/arch-\\d+\\.\\d+$";
        QTest::newRow("no os-release")
            << QByteArray("Box") << QByteArray() << "^m" + app + "/Box/linux-\\d+\\.\\d+$";
    }

    void versionString()
    {
        QFETCH(QByteArray, productName);
        QFETCH(QByteArray, osRelease);
        QFETCH(QString, pattern);
        QTemporaryDir directory;
        QFile product(directory.filePath("product_name"));
        QVERIFY(product.open(QIODevice::WriteOnly));
        product.write(productName);
        product.close();
        QString releasePath = directory.filePath("os-release");
        if (osRelease.isEmpty()) {
            releasePath = directory.filePath("missing");
        } else {
            QFile release(releasePath);
            QVERIFY(release.open(QIODevice::WriteOnly));
            release.write(osRelease);
        }
        const QString version = HMAPIClient::versionStringFor(
            app_version(), HMAPIClient::hardwareModel(product.fileName()),
            HMAPIClient::osVersion(releasePath));
        QVERIFY2(QRegularExpression(pattern).match(version).hasMatch(), qPrintable(version));
        QCOMPARE(version.count('/'), 2);
    }

    void removePasswordKeepsTheRest()
    {
        const HMAPIParams params{
            {"user", "u"}, {"password", "pw"}, {"passwords", "x"}, {"getToken", true}};
        const HMAPIParams expected{{"user", "u"}, {"passwords", "x"}, {"getToken", true}};
        QCOMPARE(HMAPIClient::removePassword(params), expected);
    }
};

QTEST_GUILESS_MAIN(HMAPIClientTest)
#include "HMAPIClientTest.moc"
