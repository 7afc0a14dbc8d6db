// Makes the screens the window controllers show.
//
// The application controller and the window controllers ask here for a fresh screen
// object each time one is named (every window command creates a new one), so they never
// depend on a screen's class or on the collaborators it needs.
#pragma once

class QWidget;
class HMScreenPresenter;

namespace HMScreenFactory {

// Utility window screens; each is handed the presenter that hosts it.
QWidget *createLaunchScreen(HMScreenPresenter &presenter);
QWidget *createLoginScreen(HMScreenPresenter &presenter);
QWidget *createVerifyEmailScreen(HMScreenPresenter &presenter);
QWidget *createDiagnosticsScreen(HMScreenPresenter &presenter);

// Content of the main panel (status display, dial, country picker, buttons).
QWidget *createMainPanel();

// Preference panes, one per tab.
QWidget *createGeneralPane();
QWidget *createWisproutePane();
QWidget *createPrivacyPane();
QWidget *createAccountPane();

} // namespace HMScreenFactory
