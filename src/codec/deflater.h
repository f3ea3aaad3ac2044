#ifndef PUSHCHAT_DEFLATER_H
#define PUSHCHAT_DEFLATER_H

#include <QByteArray>
#include <zlib.h>

// Produces exactly the bytes of qCompress(data, 9) (4-byte big-endian length,
// then a zlib stream made with level 9, window bits 15, memLevel 8 and the
// default strategy) while keeping one deflate state alive between calls.
// qCompress sets up and tears down about 256 KiB of deflate state for every
// call, which dominates the cost of compressing a short payload; deflateReset
// brings the kept state back to what a fresh deflateInit2 gives, so the
// output does not change.
//
// Not copyable; one instance serves one thread. forThisThread() hands out
// the calling thread's instance.
class Deflater
{
public:
    Deflater();
    ~Deflater();
    Deflater(const Deflater &) = delete;
    Deflater &operator=(const Deflater &) = delete;

    // The qCompress(data, 9) form of the bytes; a null array only where
    // qCompress would fail too (out of memory).
    QByteArray compress(const char *data, int size);
    QByteArray compress(const QByteArray &data) { return compress(data.constData(), data.size()); }

    // The calling thread's Deflater, created on first use and destroyed when
    // the thread ends. This thread_local cache is the codec's only mutable
    // global state: it is never shared between threads, so it needs no lock.
    static Deflater &forThisThread();

private:
    z_stream stream_{};
    bool ready_ = false;  // deflateInit2 succeeded; otherwise fall back to qCompress
};

#endif // PUSHCHAT_DEFLATER_H
