// hm-screenshots: renders every screen a person uses, light or dark, at the scale the
// environment sets (QT_SCALE_FACTOR), and saves one PNG per screen.
//
// The account is real: a reference service (TLS, its own names, inside the network
// namespace scripts/take-screenshots.sh makes) holds a demo account and the account
// manager signs in to it through the real API client. The tunnel's state is set on the
// VPN manager directly, since bringing a tunnel up needs the VPN lab. Exit status 1 when
// any screen cannot be set up or renders as an empty picture.
//
//   hm-screenshots --out DIR --scheme light|dark
#include "HMAPITestBed.h"
#include "HMAccountViewController.h"
#include "HMCreateAccountViewController.h"
#include "HMGeneralViewController.h"
#include "HMLaunchViewController.h"
#include "HMLoginViewController.h"
#include "HMMainViewController.h"
#include "HMScreenWorld.h"
#include "HMTextField.h"
#include "HMVerifyEmailViewController.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QPushButton>
#include <QSet>
#include <QStyle>
#include <QStyleFactory>
#include <QTextStream>
#include <QVBoxLayout>

namespace {

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

QPalette darkPalette()
{
    QPalette p;
    const QColor window(0x2b, 0x2f, 0x36), base(0x1f, 0x23, 0x29), text(0xe6, 0xe9, 0xed);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, window);
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, QColor(0x3a, 0x40, 0x48));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::Highlight, QColor(0x3d, 0x7b, 0xe0));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::PlaceholderText, QColor(0x8a, 0x93, 0x9e));
    p.setColor(QPalette::ToolTipBase, window);
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x7a, 0x80, 0x88));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x7a, 0x80, 0x88));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x7a, 0x80, 0x88));
    return p;
}

// A picture with fewer colours than this is a blank or a failed render.
constexpr int kMinimumColours = 12;

class Shooter
{
public:
    Shooter(QString directory, QString suffix)
        : m_directory(std::move(directory)), m_suffix(std::move(suffix))
    {}

    void shoot(const QString &name, QWidget *screen, int width)
    {
        QWidget frame;
        frame.setAttribute(Qt::WA_DontShowOnScreen);
        auto *layout = new QVBoxLayout(&frame);
        layout->setContentsMargins(0, 0, 0, 0);
        screen->setParent(&frame);
        layout->addWidget(screen);
        frame.setFixedWidth(width);
        frame.show();
        frame.adjustSize();
        QApplication::processEvents();
        const QImage image = frame.grab().toImage();
        QSet<QRgb> colours;
        for (int y = 0; y < image.height() && colours.size() < kMinimumColours; y += 3) {
            for (int x = 0; x < image.width(); x += 3) {
                colours.insert(image.pixel(x, y));
            }
        }
        const QString path = m_directory + QLatin1Char('/') + name + m_suffix + ".png";
        if (image.isNull() || colours.size() < kMinimumColours || !image.save(path)) {
            err() << "hm-screenshots: " << name << " could not be rendered" << Qt::endl;
            ++failures;
            return;
        }
        QTextStream(stdout) << path << " " << image.width() << "x" << image.height() << Qt::endl;
    }

    int failures = 0;

private:
    QString m_directory;
    QString m_suffix;
};

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOption({"out", "Folder for the pictures.", "dir"});
    parser.addOption({"scheme", "light or dark.", "scheme", "light"});
    parser.process(app);
    const bool dark = parser.value("scheme") == QLatin1String("dark");
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QApplication::setPalette(dark ? darkPalette() : QApplication::style()->standardPalette());
    const QString out = parser.value("out");
    if (out.isEmpty() || !QDir().mkpath(out)) {
        err() << "hm-screenshots: --out names no usable folder" << Qt::endl;
        return 2;
    }

    HMAPITestBed bed;
    QString problem = HMAPITestBed::unavailableReason();
    if (problem.isEmpty()) {
        bed.setUp(&problem);
    }
    if (!problem.isEmpty()) {
        err() << "hm-screenshots: " << problem << Qt::endl;
        return 1;
    }
    const qint64 mib = 1048576;
    bed.service.putAccount(
        QJsonObject{{"username", "ann@example.test"},
                    {"password", "correct horse"},
                    {"dataAllowed", 387 * mib},
                    {"dataCap", 500 * mib},
                    {"countries", QJsonArray{QJsonArray{"US", "1"}, QJsonArray{"GB", "2"},
                                             QJsonArray{"DE", "3"}, QJsonArray{"JP", "4"}}}});

    HMScreenWorld world([&bed](HMClock &clock, HMNotificationCenter &center) {
        return bed.makeClient(clock, center);
    });
    HMScreenContext context = world.context();
    context.showPreferencesGeneral = [] {};
    context.showDiagnostics = [] {};
    context.launchOnStartup = [] { return true; };
    context.setLaunchOnStartup = [](bool) {};

    HMAccountManager &account = *world.accounts.account;
    bool signedIn = false;
    HMMaybeError signInError;
    account.loginWithUsername("ann@example.test", "correct horse", false,
                              [&](const HMMaybeError &error) {
                                  signedIn = true;
                                  signInError = error;
                              });
    if (!QTest::qWaitFor([&] { return signedIn; }, 20000) || signInError) {
        err() << "hm-screenshots: sign-in failed: "
              << (signInError ? signInError->description() : QStringLiteral("no answer"))
              << Qt::endl;
        return 1;
    }
    // The VPN manager meters from the signed-in account's allowance.
    world.rig.account.setAllowance(account.bandwidthAvailable());

    const QString suffix =
        QStringLiteral("-%1@%2x").arg(parser.value("scheme")).arg(qRound(app.devicePixelRatio()));
    Shooter shooter(out, suffix);
    const int panelWidth = 340;
    const int utilityWidth = 400;

    for (const auto &[name, state] : {std::pair{"main-disconnected", VPNState::Disconnected},
                                      {"main-connecting", VPNState::Connecting},
                                      {"main-connected", VPNState::Connected}}) {
        world.rig.vpn->setState(state);
        shooter.shoot(name, new HMMainViewController(context), panelWidth);
    }
    world.accounts.routing->setWisprouteMode(2);
    shooter.shoot("main-wisproute", new HMMainViewController(context), panelWidth);
    world.accounts.routing->setWisprouteMode(0);
    world.rig.vpn->setState(VPNState::Disconnected);

    HMRecordingPresenter presenter;
    shooter.shoot("launch", new HMLaunchViewController(presenter, context), utilityWidth);
    auto *login = new HMLoginViewController(presenter, context);
    login->findChild<QLineEdit *>("emailField")->setText("ann@example.test");
    login->findChild<QLineEdit *>("passwordField")->setText("secret");
    shooter.shoot("sign-in", login, utilityWidth);

    auto *create = new HMCreateAccountViewController(presenter, context);
    const QStringList values{
        "ann", "de la cruz", "ann@example.com", "ann@example.org", "Tr0ub4dor&3x", ""};
    const QStringList fields{"firstNameField",   "lastNameField", "emailField",
                             "verifyEmailField", "passwordField", "verifyPasswordField"};
    for (int i = 0; i < fields.size(); ++i) {
        auto *field = create->findChild<HMTextField *>(fields.at(i));
        field->setText(values.at(i));
        create->fieldDidEndEditing(field);
    }
    create->didPressNext();
    shooter.shoot("create-account-error", create, utilityWidth);

    shooter.shoot("verify-email", new HMVerifyEmailViewController(presenter, context),
                  utilityWidth);
    shooter.shoot("preferences-general", new HMGeneralViewController(context), 480);
    shooter.shoot("preferences-account", new HMAccountViewController(context), 480);
    return shooter.failures == 0 ? 0 : 1;
}
