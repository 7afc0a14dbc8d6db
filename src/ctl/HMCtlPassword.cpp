#include "HMCtlPassword.h"

#include <csignal>
#include <cstdio>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace {

termios g_saved{};

// Ctrl-C at the prompt must not leave the terminal without echo.
void restoreAndDie(int signal)
{
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_saved);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

std::optional<QString> readLine()
{
    std::string line;
    int c = 0;
    bool any = false;
    while ((c = std::getchar()) != EOF) {
        any = true;
        if (c == '\n') {
            break;
        }
        line.push_back(static_cast<char>(c));
    }
    if (!any) {
        return std::nullopt;
    }
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return QString::fromStdString(line);
}

} // namespace

std::optional<QString> hm_ctl_read_password(QTextStream &prompt)
{
    if (!::isatty(STDIN_FILENO)) {
        return readLine();
    }
    prompt << "Password: " << Qt::flush;
    const bool canHide = ::tcgetattr(STDIN_FILENO, &g_saved) == 0;
    if (canHide) {
        std::signal(SIGINT, restoreAndDie);
        std::signal(SIGTERM, restoreAndDie);
        std::signal(SIGHUP, restoreAndDie);
        termios hidden = g_saved;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        hidden.c_lflag |= ECHONL;
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    std::optional<QString> password = readLine();
    if (canHide) {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_saved);
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
        std::signal(SIGHUP, SIG_DFL);
    }
    return password;
}
