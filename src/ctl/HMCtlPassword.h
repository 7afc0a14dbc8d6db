// Reading the password for "hollowmerectl login": from the terminal without echo, or the
// first line of standard input when that is not a terminal (scripts, password managers).
// Never from the command line, where every user's process list would show it.
#pragma once

#include <QString>
#include <QTextStream>
#include <optional>

// nullopt when nothing could be read (end of input, or the terminal went away).
std::optional<QString> hm_ctl_read_password(QTextStream &prompt);
