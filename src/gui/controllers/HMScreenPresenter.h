// What a screen needs from the window that hosts it.
//
// The utility window implements this; screens (launch, sign-in, create-account, verify
// e-mail, diagnostics) receive it so they can move the user on to the next screen or put
// the window away without knowing the window's class. Presenting hands the screen over:
// the presenter owns it from then on and deletes the one it replaces.
#pragma once

class QWidget;

class HMScreenPresenter
{
public:
    // Style 2 is the slide the log-out flow asks for; 0 swaps the screen at once.
    enum class Animation { None = 0, Slide = 2 };

    virtual ~HMScreenPresenter() = default;

    virtual void presentViewController(QWidget *screen, Animation animation) = 0;
    virtual void showWindow() = 0;
    virtual void closeWindow() = 0;
    virtual bool isWindowVisible() const = 0;
};
