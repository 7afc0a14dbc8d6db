// The only way the application posts desktop notifications (banners).
//
// Talks to org.freedesktop.Notifications on the session bus. "Available" means that name
// is owned or can be activated; a missing bus or server is logged once and sending then
// does nothing. The user's choice is the preference "notificationsEnabled". The connection
// notices ("Connection secure" / "Connection not secure") replace each other on screen
// instead of piling up: each is sent as a replacement of the last one shown. Pictures are
// named like the artwork; the GUI installs the renderer that turns a name into pixels
// (this library has no widgets), and without one notices go out without a picture.
#pragma once

#include <QDBusConnection>
#include <QImage>
#include <QObject>
#include <functional>

class HMPreferenceStore;

class HMNotificationManager : public QObject
{
    Q_OBJECT
public:
    using ImageRenderer = std::function<QImage(const QString &name)>;

    static const QString kEnabledKey; // "notificationsEnabled"

    static HMNotificationManager &instance();

    HMNotificationManager(HMPreferenceStore &store, const QDBusConnection &bus,
                          QObject *parent = nullptr);

    bool isEnabled() const;
    void setEnabled(bool enabled);
    bool isAvailable() const;
    void setImageRenderer(ImageRenderer renderer) { m_renderer = std::move(renderer); }

    // An empty image name sends no picture.
    void sendNotificationWithTitle(const QString &title, const QString &infoText,
                                   const QString &imageName);

Q_SIGNALS:
    // A notice the server accepted, with the id it gave it.
    void notificationDelivered(const QString &title, const QString &infoText, uint id);

private:
    HMPreferenceStore &m_store;
    QDBusConnection m_bus;
    ImageRenderer m_renderer;
    uint m_connectionNoticeId = 0;
    mutable bool m_reportedUnavailable = false;
};
