#ifndef PUSHCHAT_DEFLATER_H
#define PUSHCHAT_DEFLATER_H

#include <QByteArray>
#include <zlib.h>

// Produces exactly the bytes of qCompress(data, 9) (4-byte big-endian length,
// then a zlib stream made with level 9, window bits 15, memLevel 8 and the
// default strategy) while keeping deflate state alive between calls.
// qCompress sets up and tears down about 256 KiB of deflate state for every
// call, which dominates the cost of compressing a short payload; deflateReset
// brings the kept state back to what a fresh deflateInit2 gives, so the
// output does not change.
//
// Short inputs (up to smallInputLimit bytes, most chat envelopes) go through
// a second stream made with memLevel 4 instead of 8, whose reset clears a
// 4 KiB hash table instead of 64 KiB. For such inputs the output is the same
// bytes, because memLevel only sizes two things:
//  - the symbol buffer (1 << (memLevel + 6) entries): a block is cut when it
//    holds that many symbols less one; an input of at most smallInputLimit
//    bytes makes fewer symbols than that even with memLevel 4, so with
//    either setting the whole input is one final block;
//  - the hash table (memLevel + 7 bits): every earlier position that starts
//    with the same three bytes is on the hash chain with either size (the
//    hash of three bytes is exact in the low 8 bits); a smaller table only
//    adds positions whose bytes differ, which the match search rejects. The
//    search visits positions newest first and keeps the first longest
//    match, so it finds the same match unless it stops early: at level 9 it
//    gives up after 4096 chain entries, or 1024 once a 32-byte match is in
//    hand, and a chain cannot hold more entries than the input has bytes.
// A test compares both streams with qCompress on every length up to the
// limit.
//
// Not copyable; one instance serves one thread. forThisThread() hands out
// the calling thread's instance.
class Deflater {
public:
    // Longest input that takes the small stream (see above): fewer symbols
    // than the small stream's block limit (1024 - 1), and fewer chain
    // entries than the shortest search (4096 >> 2).
    static constexpr int smallInputLimit = 1022;

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
    // One kept deflate stream, set up on first use.
    struct Stream {
        z_stream z{};
        int memLevel;
        bool tried = false; // deflateInit2 was called
        bool ready = false; // and succeeded; otherwise fall back to qCompress
        explicit Stream(int level) : memLevel(level) { }
    };

    QByteArray compressWith(Stream &stream, const char *data, int size);

    Stream m_small;
    Stream m_full;
};

#endif // PUSHCHAT_DEFLATER_H
