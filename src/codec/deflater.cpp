#include "deflater.h"

#include <QtEndian>

#include <limits>

namespace {

// The parameters qCompress gets from compress2(): level 9 as requested,
// zlib's defaults for the rest.
constexpr int compressionLevel = 9;
constexpr int windowBits = 15;
constexpr int defaultMemLevel = 8;
// The small stream: symbol buffer of 1 << (4 + 6) = 1024 entries.
constexpr int smallMemLevel = 4;

static_assert(Deflater::smallInputLimit <= (1 << (smallMemLevel + 6)) - 2,
    "a short input must fit in one block of the small stream");
static_assert(
    Deflater::smallInputLimit < (4096 >> 2), "a short input must not make a hash chain longer than the level-9 search");

QByteArray viaQCompress(const char *data, int size)
{
    return qCompress(reinterpret_cast<const uchar *>(data), size, compressionLevel);
}

} // namespace

Deflater::Deflater() : m_small(smallMemLevel), m_full(defaultMemLevel)
{ }

Deflater::~Deflater()
{
    for (Stream *stream : { &m_small, &m_full }) {
        if (stream->ready)
            deflateEnd(&stream->z);
    }
}

Deflater &Deflater::forThisThread()
{
    thread_local Deflater deflater;
    return deflater;
}

QByteArray Deflater::compress(const char *data, int size)
{
    return compressWith(size <= smallInputLimit ? m_small : m_full, data, size);
}

QByteArray Deflater::compressWith(Stream &stream, const char *data, int size)
{
    // qCompress answers empty input with a zero length and no stream at all.
    if (size <= 0)
        return QByteArray(4, '\0');
    if (!stream.tried) {
        stream.tried = true;
        stream.ready = deflateInit2(&stream.z, compressionLevel, Z_DEFLATED, windowBits, stream.memLevel,
                           Z_DEFAULT_STRATEGY) == Z_OK;
    }
    if (!stream.ready)
        return viaQCompress(data, size);

    z_stream &z = stream.z;
    const uLong bound = deflateBound(&z, uLong(size));
    if (bound > uLong(std::numeric_limits<int>::max() - 4))
        return viaQCompress(data, size);

    QByteArray out(int(bound) + 4, Qt::Uninitialized);
    // Back to the state of a fresh deflateInit2; also drops the pointers the
    // previous call left in the stream.
    deflateReset(&z);
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data));
    z.avail_in = uInt(size);
    z.next_out = reinterpret_cast<Bytef *>(out.data() + 4);
    z.avail_out = uInt(bound);
    const int result = deflate(&z, Z_FINISH);
    if (result != Z_STREAM_END)
        return viaQCompress(data, size);

    out.resize(int(z.total_out) + 4);
    // qCompress prefixes the stream with the uncompressed length, big-endian.
    qToBigEndian<quint32>(quint32(size), out.data());
    return out;
}
