// The thin bar under the account line that shows how much of the data allowance is left.
//
// Progress runs from 0.0 to 1.0. A free account whose maximum allowance is 0 yields a
// progress that is not a number (0/0) or infinite; the bar draws that as empty instead of
// trusting it. Colours come from the status display's current look.
#pragma once

#include <QColor>
#include <QWidget>

class HMDataBar : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(double progress READ progress WRITE setProgress)

public:
    explicit HMDataBar(QWidget *parent = nullptr);

    double progress() const { return m_progress; }
    // Stored as given (also NaN), drawn clamped to [0, 1].
    void setProgress(double progress);
    // What is drawn: the progress clamped to [0, 1], 0 when not finite.
    double drawnFraction() const;

    void setColors(const QColor &background, const QColor &foreground);
    QColor backgroundColor() const { return m_background; }
    QColor foregroundColor() const { return m_foreground; }

    QSize sizeHint() const override { return {200, 6}; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    double m_progress = 0.0;
    QColor m_background;
    QColor m_foreground;
};
