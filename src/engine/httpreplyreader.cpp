// Reads an HTTP/1.x reply within fixed bounds; see httpreplyreader.h.

#include "httpreplyreader.h"

#include <QList>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace {

// Text from the server in a reason: at most this many bytes of it.
constexpr int kQuotedBytes = 200;
// The longest decimal Content-Length read as a number (fits qint64).
constexpr int kMaxLengthDigits = 18;
// The longest chunk size read as a number, in hex digits (fits qint64).
constexpr int kMaxChunkSizeDigits = 15;

// Server text as it appears in a reason: shortened, control characters
// (a terminal's escape sequences among them) as '?'.
QString quoted(const QByteArray &text)
{
    QByteArray shown = text.left(kQuotedBytes);
    for (char &c : shown) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = '?';
    }
    return QString::fromUtf8(shown) + (text.size() > kQuotedBytes ? QStringLiteral("...") : QString());
}

// True for a non-empty text of digits in `base` (10 or 16) only.
bool isNumber(const QByteArray &text, int base)
{
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [base](char c) {
        const auto u = static_cast<unsigned char>(c);
        return base == 16 ? std::isxdigit(u) != 0 : std::isdigit(u) != 0;
    });
}

QByteArray withoutCr(const QByteArray &line)
{
    return line.endsWith('\r') ? line.left(line.size() - 1) : line;
}

} // namespace

HttpReplyReader::State HttpReplyReader::feed(const QByteArray &bytes)
{
    if (m_state != State::Reading)
        return m_state;
    m_pending += bytes;
    while (m_state == State::Reading) {
        switch (m_stage) {
        case Stage::Head: {
            const int end = find("\r\n\r\n", MAX_HEAD_BYTES, "head");
            if (end < 0)
                return m_state;
            const QByteArray head = m_pending.left(end);
            consume(end + 4);
            readHead(head);
            break;
        }
        case Stage::Sized:
        case Stage::ChunkData:
            if (m_pending.isEmpty())
                return m_state;
            takeFromPending();
            break;
        case Stage::UntilClose:
            appendBody(m_pending.constData(), m_pending.size());
            consume(m_pending.size());
            return m_state;
        case Stage::ChunkSize: {
            const int end = find("\r\n", MAX_LINE_BYTES, "chunk size line");
            if (end < 0)
                return m_state;
            QByteArray line = m_pending.left(end);
            consume(end + 2);
            if (line.contains(';'))
                line.truncate(line.indexOf(';')); // chunk extensions are ignored
            line = line.trimmed();
            if (line.size() > kMaxChunkSizeDigits || !isNumber(line, 16)) {
                fail(QStringLiteral("malformed chunk size: %1").arg(quoted(line)));
                break;
            }
            m_left = line.toLongLong(nullptr, 16);
            m_stage = m_left == 0 ? Stage::Trailer : Stage::ChunkData;
            break;
        }
        case Stage::ChunkEnd:
            if (m_pending.size() < 2)
                return m_state;
            if (!m_pending.startsWith("\r\n")) {
                fail(QStringLiteral("malformed chunk end"));
                break;
            }
            consume(2);
            m_stage = Stage::ChunkSize;
            break;
        case Stage::Trailer: {
            const int end = find("\r\n", MAX_HEAD_BYTES - m_trailerBytes, "trailer");
            if (end < 0)
                return m_state;
            m_trailerBytes += end + 2;
            consume(end + 2);
            if (end == 0)
                m_state = State::Done;
            break;
        }
        }
    }
    return m_state;
}

HttpReplyReader::State HttpReplyReader::end()
{
    if (m_state != State::Reading)
        return m_state;
    if (m_stage == Stage::UntilClose)
        m_state = State::Done;
    else if (m_stage == Stage::Head && m_pending.isEmpty())
        fail(QStringLiteral("connection closed by the server without a reply"));
    else
        fail(QStringLiteral("connection closed by the server before the end of the reply"));
    return m_state;
}

int HttpReplyReader::find(const char *marker, int most, const char *what)
{
    const int length = int(std::strlen(marker));
    // Only what arrived since the last search is new, plus a marker cut in two.
    const int end = m_pending.indexOf(marker, std::max(m_scanned - length + 1, 0));
    if (end >= 0 && end <= most)
        return end;
    if (end > most || m_pending.size() > most + length) {
        fail(QStringLiteral("%1 over %2 bytes").arg(QLatin1String(what)).arg(most));
        return -1;
    }
    m_scanned = m_pending.size();
    return -1;
}

void HttpReplyReader::consume(int bytes)
{
    m_pending.remove(0, bytes);
    m_scanned = 0;
}

void HttpReplyReader::readHead(const QByteArray &head)
{
    const QList<QByteArray> lines = head.split('\n');
    if (lines.size() - 1 > MAX_HEADER_FIELDS)
        return fail(QStringLiteral("%1 header fields, over %2").arg(lines.size() - 1).arg(MAX_HEADER_FIELDS));
    const QByteArray first = withoutCr(lines.first());
    const QByteArray code = first.mid(9, 3);
    if (!first.startsWith("HTTP/1.") || first.size() < 12 || first.at(8) != ' ' || !isNumber(code, 10) ||
        (first.size() > 12 && first.at(12) != ' '))
        return fail(QStringLiteral("not an HTTP reply: %1").arg(quoted(first)));
    QByteArray location, contentLength, transferEncoding, contentEncoding;
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray line = withoutCr(lines.at(i));
        const int colon = line.indexOf(':');
        if (colon <= 0 || line.at(0) == ' ' || line.at(0) == '\t')
            return fail(QStringLiteral("malformed header field: %1").arg(quoted(line)));
        const QByteArray name = line.left(colon).trimmed().toLower();
        const QByteArray value = line.mid(colon + 1).trimmed();
        QByteArray *kept = name == "location"            ? &location
                           : name == "content-length"    ? &contentLength
                           : name == "transfer-encoding" ? &transferEncoding
                           : name == "content-encoding"  ? &contentEncoding
                                                         : nullptr;
        if (kept != nullptr)
            *kept += (kept->isEmpty() ? QByteArray() : QByteArrayLiteral(", ")) + value;
    }

    const int status = code.toInt();
    const QString statusLine = QStringLiteral("HTTP %1 %2").arg(status).arg(quoted(first.mid(13))).trimmed();
    if (status >= 300 && status < 400)
        return fail(QStringLiteral("%1: redirect to %2 refused").arg(statusLine, quoted(location)));
    if (status < 200 || status >= 300)
        return fail(statusLine);
    if (!contentEncoding.isEmpty() && contentEncoding.compare("identity", Qt::CaseInsensitive) != 0)
        return fail(QStringLiteral("compressed reply refused (Content-Encoding: %1)").arg(quoted(contentEncoding)));
    if (!transferEncoding.isEmpty()) {
        if (transferEncoding.compare("chunked", Qt::CaseInsensitive) != 0)
            return fail(QStringLiteral("Transfer-Encoding %1 refused").arg(quoted(transferEncoding)));
        m_stage = Stage::ChunkSize;
    } else if (status == 204) {
        m_state = State::Done;
    } else if (!contentLength.isEmpty()) {
        if (!isNumber(contentLength, 10))
            return fail(QStringLiteral("malformed Content-Length: %1").arg(quoted(contentLength)));
        if (contentLength.size() > kMaxLengthDigits || contentLength.toLongLong() > m_maxBody) {
            const QString length = quoted(contentLength);
            return fail(QStringLiteral("body over %1 bytes (Content-Length: %2)").arg(m_maxBody).arg(length));
        }
        m_left = contentLength.toLongLong();
        m_stage = Stage::Sized;
        if (m_left == 0)
            m_state = State::Done;
    } else {
        m_stage = Stage::UntilClose;
    }
}

void HttpReplyReader::takeFromPending()
{
    const qint64 taken = std::min<qint64>(m_left, m_pending.size());
    appendBody(m_pending.constData(), taken);
    consume(int(taken));
    m_left -= taken;
    if (m_left > 0 || m_state != State::Reading)
        return;
    if (m_stage == Stage::Sized)
        m_state = State::Done;
    else
        m_stage = Stage::ChunkEnd;
}

void HttpReplyReader::appendBody(const char *data, qint64 size)
{
    if (const void *nul = std::memchr(data, 0, std::size_t(size))) {
        const qint64 at = m_body.size() + (static_cast<const char *>(nul) - data);
        return fail(QStringLiteral("body holds a NUL byte (at byte %1)").arg(at));
    }
    if (m_body.size() + size > m_maxBody)
        return fail(QStringLiteral("body over %1 bytes").arg(m_maxBody));
    m_body.append(data, int(size));
}

void HttpReplyReader::fail(const QString &reason)
{
    m_state = State::Failed;
    m_error = reason;
    m_body = QByteArray();
    m_pending = QByteArray();
}
