#include "HMImageView.h"

#include "HMClock.h"
#include "HMException.h"

#include <QPainter>
#include <cmath>

QIcon HMImageView::imageNamed(const QString &name)
{
    return QIcon(QStringLiteral(":/images/%1.svg").arg(name));
}

HMImageView::HMImageView(QWidget *parent, HMClock *clock)
    : QWidget(parent), m_clock(clock ? *clock : HMClock::system())
{}

HMImageView::~HMImageView()
{
    if (m_pendingUpdate) {
        m_clock.cancel(m_pendingUpdate);
    }
}

void HMImageView::setImage(const QString &name)
{
    show(name);
}

void HMImageView::show(const QString &name)
{
    if (name == m_imageName) {
        return;
    }
    m_imageName = name;
    m_image = imageNamed(name);
    update();
    Q_EMIT imageChanged(name);
}

void HMImageView::startAnimating()
{
    if (m_animating || m_animationImages.isEmpty()) {
        return;
    }
    // A step still pending from a stopped animation would otherwise run a second chain
    // beside the new one at twice the speed; it ends here, as it would have on its own.
    if (m_pendingUpdate) {
        m_clock.cancel(m_pendingUpdate);
        m_pendingUpdate = 0;
        finish(false);
    }
    m_currImage = 0;
    m_repeatCounter = m_animationRepeatCount;
    show(m_animationImages.first());
    m_animating = true;
    scheduleUpdate();
}

void HMImageView::stopAnimating()
{
    m_animating = false;
}

void HMImageView::animateWithCompletion(Completion completion)
{
    hm_assert(m_animationRepeatCount != 0,
              QStringLiteral("Only finite animations should be called with completion"));
    m_completion = std::move(completion);
    startAnimating();
}

void HMImageView::scheduleUpdate()
{
    const double interval = m_animationDuration / m_animationImages.size();
    m_pendingUpdate = m_clock.singleShot(std::llround(interval * 1000), this, [this] {
        m_pendingUpdate = 0;
        updateAnimation();
    });
}

void HMImageView::updateAnimation()
{
    if (!m_animating) {
        finish(false);
        return;
    }
    if (++m_currImage >= m_animationImages.size()) {
        m_currImage = 0;
        if (m_animationRepeatCount != 0 && --m_repeatCounter == 0) {
            m_animating = false;
            finish(true);
            return;
        }
    }
    show(m_animationImages.at(m_currImage));
    scheduleUpdate();
}

void HMImageView::finish(bool finished)
{
    Completion completion = std::move(m_completion);
    m_completion = nullptr;
    if (completion) {
        completion(finished);
    }
}

void HMImageView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    m_image.paint(&painter, rect());
}
