#include "inflater.h"

#include <QtEndian>

#include <algorithm>
#include <limits>

namespace {

// qUncompress refuses a claimed length that a QByteArray cannot hold.
constexpr quint32 kLargestClaim = (1u << 31u) - 24u;
// No zlib stream of n bytes inflates to more than about 1032 * n bytes.
constexpr qint64 kMaxRatio = 1032;
// Room past the expected end: zlib decodes with its fast loop only while at
// least 258 bytes of output space are left.
constexpr qint64 kSlack = 512;

QByteArray viaQUncompress(const char *data, int size)
{
    return qUncompress(reinterpret_cast<const uchar *>(data), size);
}

} // namespace

Inflater::Inflater()
{
    ready_ = inflateInit(&stream_) == Z_OK;
}

Inflater::~Inflater()
{
    if (ready_)
        inflateEnd(&stream_);
}

Inflater &Inflater::forThisThread()
{
    thread_local Inflater inflater;
    return inflater;
}

QByteArray Inflater::uncompress(const char *data, int size)
{
    if (size <= 4 || !ready_)
        return viaQUncompress(data, size);
    const quint32 claim = qFromBigEndian<quint32>(data);
    if (claim >= kLargestClaim)
        return QByteArray();

    const qint64 bound = qint64(size - 4) * kMaxRatio + kMaxRatio;
    qint64 capacity = std::min<qint64>(claim, bound) + kSlack;
    QByteArray out(int(capacity), Qt::Uninitialized);

    inflateReset(&stream_);
    stream_.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data + 4));
    stream_.avail_in = uInt(size - 4);
    qint64 produced = 0;
    for (;;) {
        stream_.next_out = reinterpret_cast<Bytef *>(out.data() + produced);
        stream_.avail_out = uInt(capacity - produced);
        // Z_FINISH: when the data fits, inflate skips copying it into its
        // window; when it does not, the loop grows the buffer and goes on.
        const int result = inflate(&stream_, Z_FINISH);
        produced = capacity - stream_.avail_out;
        if (result == Z_STREAM_END)
            break;
        if (result != Z_OK && result != Z_BUF_ERROR)
            return QByteArray(); // damaged data, preset dictionary, out of memory
        if (stream_.avail_out != 0)
            return QByteArray(); // input ended before the stream did
        if (capacity >= std::numeric_limits<int>::max() / 2)
            return QByteArray();
        capacity *= 2;
        out.resize(int(capacity));
    }
    out.resize(int(produced));
    return out;
}
