#include "inflater.h"

#include <QtEndian>

#include <algorithm>

namespace {

// No zlib stream of n bytes inflates to more than about 1032 * n bytes.
constexpr qint64 kMaxRatio = 1032;
// Room past the expected end: zlib decodes with its fast loop only while at
// least 258 bytes of output space are left.
constexpr qint64 kSlack = 512;

QByteArray fail(Inflater::Result *result, Inflater::Result why)
{
    if (result != nullptr)
        *result = why;
    return QByteArray();
}

} // namespace

Inflater::Inflater()
{
    m_ready = inflateInit(&m_stream) == Z_OK;
}

Inflater::~Inflater()
{
    if (m_ready)
        inflateEnd(&m_stream);
}

Inflater &Inflater::forThisThread()
{
    thread_local Inflater inflater;
    return inflater;
}

QByteArray Inflater::uncompress(const char *data, int size, int limit, Result *result)
{
    if (size <= 4 || !m_ready)
        return fail(result, Result::Damaged);
    const quint32 claim = qFromBigEndian<quint32>(data);
    if (qint64(claim) > qint64(limit))
        return fail(result, Result::TooLarge);

    // The output may reach limit + 1 bytes: one byte past the limit proves
    // the data too large without inflating the rest.
    const qint64 ceiling = qint64(limit) + 1;
    const qint64 bound = qint64(size - 4) * kMaxRatio + kMaxRatio;
    qint64 capacity = std::min(std::min<qint64>(claim, bound) + kSlack, ceiling);
    QByteArray out(int(capacity), Qt::Uninitialized);

    inflateReset(&m_stream);
    m_stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data + 4));
    m_stream.avail_in = uInt(size - 4);
    qint64 produced = 0;
    for (;;) {
        m_stream.next_out = reinterpret_cast<Bytef *>(out.data() + produced);
        m_stream.avail_out = uInt(capacity - produced);
        // Z_FINISH: when the data fits, inflate skips copying it into its
        // window; when it does not, the loop grows the buffer and goes on.
        const int status = inflate(&m_stream, Z_FINISH);
        produced = capacity - m_stream.avail_out;
        if (produced > limit)
            return fail(result, Result::TooLarge);
        if (status == Z_STREAM_END)
            break;
        if (status != Z_OK && status != Z_BUF_ERROR)
            return fail(result, Result::Damaged); // damaged data, preset dictionary, out of memory
        if (m_stream.avail_out != 0)
            return fail(result, Result::Damaged); // input ended before the stream did
        capacity = std::min(capacity * 2, ceiling);
        out.resize(int(capacity));
    }
    out.resize(int(produced));
    if (result != nullptr)
        *result = Result::Ok;
    return out;
}
