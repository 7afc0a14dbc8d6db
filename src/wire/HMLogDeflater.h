// Compresses one log as it is read, slice by slice, into an HMDeflatedLog (raw deflate at
// level 9, the form zip members take), so the caller never needs the whole log in memory:
// what it holds is the compressed result plus deflate's own fixed state (80 KiB, whatever
// the log's length). Used by the helper for its tails and by the
// application for its own members.
#pragma once

#include "HMDeflatedLog.h"

#include <memory>

struct z_stream_s;

class HMLogDeflater
{
public:
    HMLogDeflater();
    ~HMLogDeflater();
    HMLogDeflater(const HMLogDeflater &) = delete;
    HMLogDeflater &operator=(const HMLogDeflater &) = delete;

    void add(QByteArrayView slice);
    // The whole log; the deflater starts over empty afterwards.
    HMDeflatedLog finish();

    static HMDeflatedLog deflate(QByteArrayView bytes);

private:
    void run(QByteArrayView input, int flush);

    std::unique_ptr<z_stream_s> m_stream;
    QByteArray m_out;
    quint32 m_crc32 = 0;
    qint64 m_size = 0;
};
