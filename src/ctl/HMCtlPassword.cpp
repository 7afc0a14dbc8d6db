#include "HMCtlPassword.h"

#include <cstdio>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace {

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
    termios saved{};
    const bool canHide = ::tcgetattr(STDIN_FILENO, &saved) == 0;
    if (canHide) {
        termios hidden = saved;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        hidden.c_lflag |= ECHONL;
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    std::optional<QString> password = readLine();
    if (canHide) {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    }
    return password;
}
