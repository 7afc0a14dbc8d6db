// A form field that can wear the error ring and says when the user leaves it.
//
// The ring is a 2-pixel rounded outline in the theme's error colour, drawn over the
// field's own frame while shouldHighlightError is set. Setting the flag does not repaint
// the field: the form decides which field redraws (see HMCreateAccountViewController).
#pragma once

#include <QLineEdit>

class HMTextField : public QLineEdit
{
    Q_OBJECT
    Q_PROPERTY(bool shouldHighlightError READ shouldHighlightError WRITE setShouldHighlightError)

public:
    explicit HMTextField(QWidget *parent = nullptr);

    bool shouldHighlightError() const { return m_shouldHighlightError; }
    void setShouldHighlightError(bool highlight) { m_shouldHighlightError = highlight; }

Q_SIGNALS:
    // The field lost keyboard focus (to another field, a button, another window).
    void didEndEditing(HMTextField *field);

protected:
    void paintEvent(QPaintEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;

private:
    bool m_shouldHighlightError = false;
};
