#ifndef PUSHCHAT_HTTPREPLYREADER_H
#define PUSHCHAT_HTTPREPLYREADER_H

// HttpReplyReader: reads one HTTP/1.x reply to a GET as its bytes arrive and
// keeps its body, within bounds that hold whatever the server sends:
// - the head (status line and header fields) is at most MAX_HEAD_BYTES and
//   MAX_HEADER_FIELDS fields, parsed once, in time linear in its size;
// - only a 2xx status is taken: a 3xx is refused naming the Location, any
//   other status names itself ("HTTP 404 Not Found");
// - a Content-Encoding other than identity, or a Transfer-Encoding other
//   than chunked, is refused (nothing is inflated);
// - the body is at most the limit given: a Content-Length over it is
//   refused at once, any other body once it passes the limit; a chunk size
//   line is at most MAX_LINE_BYTES, the trailer at most MAX_HEAD_BYTES;
// - a body holding a NUL byte is refused.
// The body is framed by Content-Length, by chunks, or by the end of the
// connection. Reasons are one line for people; text from the server in them
// is shortened and its control characters replaced.
//
// Plain data, no I/O: the caller feeds what it reads and reports the end of
// the connection. Not thread-safe; one reply per reader.

#include <QByteArray>
#include <QString>

#include <utility>

class HttpReplyReader {
public:
    enum class State {
        Reading,
        Done,
        Failed
    };

    static constexpr int MAX_HEAD_BYTES = 64 * 1024;
    static constexpr int MAX_HEADER_FIELDS = 100;
    static constexpr int MAX_LINE_BYTES = 1024;

    explicit HttpReplyReader(qint64 maxBodyBytes) : m_maxBody(maxBodyBytes) { }

    /// Takes the next bytes of the reply.
    State feed(const QByteArray &bytes);
    /// The connection has ended: Done for a body that runs to its end.
    State end();

    State state() const { return m_state; }
    /// Why the reply failed; "" unless Failed.
    QString error() const { return m_error; }
    /// The body; complete once Done.
    QByteArray takeBody() { return std::move(m_body); }

private:
    enum class Stage {
        Head,
        Sized,
        UntilClose,
        ChunkSize,
        ChunkData,
        ChunkEnd,
        Trailer
    };

    /// Parses the head (without its final blank line) and chooses the framing.
    void readHead(const QByteArray &head);
    /// Appends at most what is left of the sized body or chunk from m_pending.
    void takeFromPending();
    /// Appends to the body within the limit and without NUL bytes.
    void appendBody(const char *data, qint64 size);
    /// The index of `marker` in m_pending; -1 while it has not arrived, or
    /// (Failed) once more than `most` bytes wait before it.
    int find(const char *marker, int most, const char *what);
    /// Drops the first `bytes` of m_pending.
    void consume(int bytes);
    void fail(const QString &reason);

    const qint64 m_maxBody;
    State m_state = State::Reading;
    Stage m_stage = Stage::Head;
    QByteArray m_pending; // received, not yet taken
    int m_scanned = 0;    // m_pending searched up to here for a line end
    int m_trailerBytes = 0;
    qint64 m_left = 0; // of the sized body or of the current chunk
    QByteArray m_body;
    QString m_error;
};

#endif // PUSHCHAT_HTTPREPLYREADER_H
