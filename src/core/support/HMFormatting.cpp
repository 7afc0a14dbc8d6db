#include "HMFormatting.h"

#include <QElapsedTimer>
#include <algorithm>
#include <cstdio>

QString pretty_mb(int64_t bytes)
{
    const int64_t quotient = bytes / 1048576; // C++ division truncates toward zero
    return QString::asprintf("%llu ", static_cast<unsigned long long>(quotient));
}

QStringList make_frames(const QString &prefix, unsigned long count, bool reversed)
{
    QStringList frames;
    frames.reserve(static_cast<qsizetype>(count));
    for (unsigned long n = 1; n <= count; ++n) {
        const QString number = count > 9 ? QString::asprintf("%02lu", n) : QString::number(n);
        frames.append(prefix + number);
    }
    if (reversed) {
        std::reverse(frames.begin(), frames.end());
    }
    return frames;
}

void time_block(const std::function<void()> &block)
{
    QElapsedTimer timer;
    timer.start();
    block();
    std::fprintf(stderr, "runtime: %f\n", static_cast<double>(timer.nsecsElapsed()) / 1e9);
}
