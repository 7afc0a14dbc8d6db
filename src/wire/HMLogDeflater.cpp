#include "HMLogDeflater.h"

#include <new>
#include <zlib.h>

namespace {

constexpr int kSlice = 16 * 1024;
// Deflate's state is the fixed part of what compressing costs: 4 << kWindowBits for the
// window and its chains, 8 << (kMemLevel + 6) for the hash heads and pending symbols, here
// 64 + 16 KiB instead of the 256 KiB of zlib's defaults. Log lines repeat at short range,
// so the smaller window and hash cost well under 1 % of the archive's size.
constexpr int kWindowBits = 14;
constexpr int kMemLevel = 5;

} // namespace

HMLogDeflater::HMLogDeflater() : m_stream(std::make_unique<z_stream_s>())
{
    // Negative window bits: no zlib header or trailer, the bare stream a zip member holds.
    if (deflateInit2(m_stream.get(), Z_BEST_COMPRESSION, Z_DEFLATED, -kWindowBits, kMemLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc();
    }
    m_crc32 = ::crc32(0, nullptr, 0);
}

HMLogDeflater::~HMLogDeflater()
{
    deflateEnd(m_stream.get());
}

void HMLogDeflater::run(QByteArrayView input, int flush)
{
    m_stream->next_in = reinterpret_cast<Bytef *>(const_cast<char *>(input.data()));
    m_stream->avail_in = static_cast<uInt>(input.size());
    int status = Z_OK;
    do {
        // Grows by slices rather than by doubling: the result is most of what is held.
        const qsizetype used = m_out.size();
        m_out.resize(used + kSlice);
        m_stream->next_out = reinterpret_cast<Bytef *>(m_out.data() + used);
        m_stream->avail_out = kSlice;
        status = ::deflate(m_stream.get(), flush);
        m_out.truncate(used + kSlice - static_cast<qsizetype>(m_stream->avail_out));
    } while (m_stream->avail_out == 0 || (flush == Z_FINISH && status != Z_STREAM_END));
}

void HMLogDeflater::add(QByteArrayView slice)
{
    if (slice.isEmpty()) {
        return;
    }
    m_crc32 = ::crc32(m_crc32, reinterpret_cast<const Bytef *>(slice.data()),
                      static_cast<uInt>(slice.size()));
    m_size += slice.size();
    run(slice, Z_NO_FLUSH);
}

HMDeflatedLog HMLogDeflater::finish()
{
    run(QByteArrayView(), Z_FINISH);
    m_out.squeeze();
    HMDeflatedLog log(std::move(m_out), m_crc32, m_size);
    deflateReset(m_stream.get());
    m_out = QByteArray();
    m_crc32 = ::crc32(0, nullptr, 0);
    m_size = 0;
    return log;
}

HMDeflatedLog HMLogDeflater::deflate(QByteArrayView bytes)
{
    HMLogDeflater deflater;
    for (qsizetype at = 0; at < bytes.size(); at += kSlice) {
        deflater.add(bytes.sliced(at, qMin<qsizetype>(kSlice, bytes.size() - at)));
    }
    return deflater.finish();
}
