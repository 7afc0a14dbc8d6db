#include "HMTextField.h"

#include "HMTheme.h"

#include <QPainter>

HMTextField::HMTextField(QWidget *parent) : QLineEdit(parent)
{
    setMinimumHeight(30);
    // Generous but bounded: pasting a novel into a name field must not stall the form.
    setMaxLength(256);
}

void HMTextField::paintEvent(QPaintEvent *event)
{
    QLineEdit::paintEvent(event);
    if (!m_shouldHighlightError) {
        return;
    }
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(HMTheme::errorColor(), 2));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 4, 4);
}

void HMTextField::focusOutEvent(QFocusEvent *event)
{
    QLineEdit::focusOutEvent(event);
    Q_EMIT didEndEditing(this);
}
