// An image view that can also play a frame animation (the tray's connecting icon).
//
// Images are named, as the artwork in the resources is (":/images/<name>.svg"), and drawn
// scaled to the view, so they stay crisp at any device pixel ratio. The animation steps
// through `animationImages` every animationDuration / frames seconds on the injected clock
// (tests advance an HMManualClock instead of waiting); a repeat count of 0 plays forever.
// Stopping only clears `animating`: the frame on show stays until the next image is set,
// and the pending step ends the chain, reporting an unfinished animation to its completion.
#pragma once

#include <QIcon>
#include <QStringList>
#include <QWidget>
#include <functional>

class HMClock;

class HMImageView : public QWidget
{
    Q_OBJECT
public:
    using Completion = std::function<void(bool finished)>;

    static QIcon imageNamed(const QString &name);

    explicit HMImageView(QWidget *parent = nullptr, HMClock *clock = nullptr);
    ~HMImageView() override;

    // Shows one image; an animation in progress keeps running over it until stopped.
    void setImage(const QString &name);
    QString imageName() const { return m_imageName; }
    QIcon image() const { return m_image; }

    void setAnimationImages(const QStringList &names) { m_animationImages = names; }
    QStringList animationImages() const { return m_animationImages; }
    void setAnimationDuration(double seconds) { m_animationDuration = seconds; }
    double animationDuration() const { return m_animationDuration; }
    void setAnimationRepeatCount(unsigned count) { m_animationRepeatCount = count; }
    unsigned animationRepeatCount() const { return m_animationRepeatCount; }
    bool isAnimating() const { return m_animating; }
    int currImage() const { return m_currImage; }
    unsigned repeatCounter() const { return m_repeatCounter; }

    void startAnimating();
    void stopAnimating();
    // Only for finite animations: throws the assertion "Only finite animations should be
    // called with completion" when the repeat count is 0.
    void animateWithCompletion(Completion completion);

Q_SIGNALS:
    void imageChanged(const QString &name);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void updateAnimation();
    void scheduleUpdate();
    void finish(bool finished);
    void show(const QString &name);

    HMClock &m_clock;
    QString m_imageName;
    QIcon m_image;
    QStringList m_animationImages;
    double m_animationDuration = 0;
    unsigned m_animationRepeatCount = 0;
    bool m_animating = false;
    int m_currImage = 0;
    unsigned m_repeatCounter = 0;
    Completion m_completion;
    quint64 m_pendingUpdate = 0;
};
