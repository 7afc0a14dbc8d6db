// The logging call every component uses.
//
// HMLogError(text) writes one line at the error level with the calling file and line.
// Every message of the client goes out at the error level on purpose: the level constants
// of the old builds admitted only errors in every file, and diagnostics readers expect the
// "E" on every line. The other levels exist for the formatter's sake.
#pragma once

#include <QString>

enum class HMLogFlag : int
{
    Error = 1,
    Warning = 2,
    Info = 4,
    Verbose = 8,
};

void hm_log(HMLogFlag flag, const char *file, int line, const QString &message);

#define HMLogError(message) ::hm_log(HMLogFlag::Error, __FILE__, __LINE__, (message))
