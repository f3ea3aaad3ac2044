#ifndef PUSHCHAT_INFLATER_H
#define PUSHCHAT_INFLATER_H

#include <QByteArray>
#include <zlib.h>

// Reads the qCompress form (4-byte big-endian length, then a zlib stream)
// with the result qUncompress gives: the whole inflated data when the stream
// is complete and sound, a null array otherwise. The caller's limit bounds
// the output: a prefix that claims more than the limit is refused before
// anything is inflated, and inflation stops as soon as the output would pass
// the limit, whatever the prefix claimed (a stream inflates up to about
// 1000:1, so the claim is never trusted). The inflate state is kept between
// calls and reset, instead of being set up and torn down for every message;
// the prefix only sizes the first buffer up to what the input can possibly
// inflate to, so a forged claim costs nothing.
//
// Not copyable; one instance serves one thread (forThisThread()).
class Inflater {
public:
    Inflater();
    ~Inflater();
    Inflater(const Inflater &) = delete;
    Inflater &operator=(const Inflater &) = delete;

    enum class Result {
        Ok,
        Damaged,
        TooLarge
    };

    // The inflated data, null when it is not Ok; `result` says why.
    QByteArray uncompress(const char *data, int size, int limit, Result *result = nullptr);

    // The calling thread's Inflater, created on first use and destroyed when
    // the thread ends; never shared, so it needs no lock.
    static Inflater &forThisThread();

private:
    z_stream m_stream{};
    bool m_ready = false; // inflateInit succeeded; otherwise nothing is inflated
};

#endif // PUSHCHAT_INFLATER_H
