#include "deflater.h"

#include <QtEndian>

#include <limits>

namespace {

// The parameters qCompress gets from compress2(): level 9 as requested,
// zlib's defaults for the rest.
constexpr int compressionLevel = 9;
constexpr int windowBits = 15;
constexpr int memLevel = 8;

QByteArray viaQCompress(const char *data, int size)
{
    return qCompress(reinterpret_cast<const uchar *>(data), size, compressionLevel);
}

} // namespace

Deflater::Deflater()
{
    ready_ = deflateInit2(&stream_, compressionLevel, Z_DEFLATED, windowBits, memLevel,
                          Z_DEFAULT_STRATEGY) == Z_OK;
}

Deflater::~Deflater()
{
    if (ready_)
        deflateEnd(&stream_);
}

Deflater &Deflater::forThisThread()
{
    thread_local Deflater deflater;
    return deflater;
}

QByteArray Deflater::compress(const char *data, int size)
{
    // qCompress answers empty input with a zero length and no stream at all.
    if (size <= 0)
        return QByteArray(4, '\0');
    if (!ready_)
        return viaQCompress(data, size);

    const uLong bound = deflateBound(&stream_, uLong(size));
    if (bound > uLong(std::numeric_limits<int>::max() - 4))
        return viaQCompress(data, size);

    QByteArray out(int(bound) + 4, Qt::Uninitialized);
    // Back to the state of a fresh deflateInit2; also drops the pointers the
    // previous call left in the stream.
    deflateReset(&stream_);
    stream_.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data));
    stream_.avail_in = uInt(size);
    stream_.next_out = reinterpret_cast<Bytef *>(out.data() + 4);
    stream_.avail_out = uInt(bound);
    const int result = deflate(&stream_, Z_FINISH);
    if (result != Z_STREAM_END)
        return viaQCompress(data, size);

    out.resize(int(stream_.total_out) + 4);
    // qCompress prefixes the stream with the uncompressed length, big-endian.
    qToBigEndian<quint32>(quint32(size), out.data());
    return out;
}
