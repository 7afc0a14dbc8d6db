// Makes the screens the window controllers show.
//
// The application controller and the window controllers ask here for a fresh screen
// object each time one is named (every window command creates a new one), so they never
// depend on a screen's class or on the collaborators it needs.
#pragma once

class QWidget;
class HMScreenPresenter;
struct HMScreenContext;

namespace HMScreenFactory {

// The managers and window commands every screen is made with. The application controller
// sets them once, before its first window; until then the process-wide managers serve and
// screens hide the controls for window commands they were not given.
void setContext(const HMScreenContext &context);

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
