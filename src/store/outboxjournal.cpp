#include "outboxjournal.h"

#include <QDataStream>
#include <QFile>
#include <QIODevice>

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr quint32 kMostRecordBytes = 256u << 20; // larger lengths are damage, not records
constexpr int kHeadBytes = 8;                    // length, CRC-32
constexpr qint64 kLeastMapped = 64 << 10;        // a mapped file's first size

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

quint32 crcOf(const char *data, int size)
{
    return quint32(crc32(0, reinterpret_cast<const Bytef *>(data), uInt(size)));
}

void putLe32(char *to, quint32 value)
{
    for (int i = 0; i < 4; ++i)
        to[i] = char(value >> (8 * i));
}

quint32 le32(const char *from)
{
    quint32 value = 0;
    for (int i = 0; i < 4; ++i)
        value |= quint32(quint8(from[i])) << (8 * i);
    return value;
}

// A record's payload: the format's byte, then the numbers (little-endian)
// and the texts (UTF-16 code units, each after its count). The journals of
// earlier versions hold QDataStream payloads, whose first byte (the high
// byte of the id) is 0: they are still read.
constexpr char kCompact = char(0xC1);
constexpr int kFixedBytes = 1 + 2 * 8 + 4 * 4;

void putLe64(char *to, quint64 value)
{
    for (int i = 0; i < 8; ++i)
        to[i] = char(value >> (8 * i));
}

quint64 le64(const char *from)
{
    quint64 value = 0;
    for (int i = 0; i < 8; ++i)
        value |= quint64(quint8(from[i])) << (8 * i);
    return value;
}

// The record (head and payload) into `record`, whose storage is reused.
void recordOf(const StoredMessage &m, QByteArray *record)
{
    const QString *texts[] = { &m.conversation, &m.key, &m.sender, &m.stamp, &m.body };
    int size = kHeadBytes + kFixedBytes;
    for (const QString *text : texts)
        size += 4 + 2 * text->size();
    record->resize(size);
    char *to = record->data() + kHeadBytes;
    *to++ = kCompact;
    putLe64(to, quint64(m.id));
    putLe64(to + 8, quint64(m.time));
    putLe32(to + 16, quint32(m.bodyType));
    putLe32(to + 20, quint32(m.messageType));
    putLe32(to + 24, quint32(m.securityLevel));
    putLe32(to + 28, quint32(m.state));
    to += kFixedBytes - 1;
    for (const QString *text : texts) {
        putLe32(to, quint32(text->size()));
        to += 4;
        for (const QChar c : *text) {
            to[0] = char(c.unicode());
            to[1] = char(c.unicode() >> 8);
            to += 2;
        }
    }
    const int payload = size - kHeadBytes;
    putLe32(record->data(), quint32(payload));
    putLe32(record->data() + 4, crcOf(record->constData() + kHeadBytes, payload));
}

bool compactOf(const QByteArray &payload, StoredMessage *m)
{
    const char *from = payload.constData();
    const char *const end = from + payload.size();
    if (payload.size() < kFixedBytes)
        return false;
    m->id = qint64(le64(from + 1));
    m->time = qint64(le64(from + 9));
    m->bodyType = int(le32(from + 17));
    m->messageType = int(le32(from + 21));
    m->securityLevel = int(le32(from + 25));
    const qint32 state = qint32(le32(from + 29));
    m->state = state == qint32(StoredState::Sent) ? StoredState::Sent : StoredState::Pending;
    from += kFixedBytes;
    for (QString *text : { &m->conversation, &m->key, &m->sender, &m->stamp, &m->body }) {
        if (end - from < 4)
            return false;
        const quint32 units = le32(from);
        from += 4;
        if (quint64(end - from) < 2 * quint64(units))
            return false;
        text->resize(int(units));
        QChar *to = text->data();
        for (quint32 i = 0; i < units; ++i, from += 2)
            to[i] = QChar(ushort(quint8(from[0]) | quint8(from[1]) << 8));
    }
    m->outgoing = true;
    return from == end && m->id > 0;
}

bool messageOf(const QByteArray &payload, StoredMessage *m)
{
    if (!payload.isEmpty() && payload.at(0) == kCompact)
        return compactOf(payload, m);
    QDataStream in(payload);
    in.setVersion(QDataStream::Qt_5_0);
    qint64 id = 0, time = 0;
    qint32 bodyType = 0, messageType = 0, level = 0, state = 0;
    in >> id >> m->conversation >> m->key >> m->sender >> time >> m->stamp >> m->body >> bodyType >> messageType >>
        level >> state;
    m->id = id;
    m->time = time;
    m->bodyType = bodyType;
    m->messageType = messageType;
    m->securityLevel = level;
    m->state = state == qint32(StoredState::Sent) ? StoredState::Sent : StoredState::Pending;
    m->outgoing = true;
    return in.status() == QDataStream::Ok && in.atEnd() && id > 0;
}

bool writeAll(int fd, qint64 at, const char *data, qint64 size)
{
    while (size > 0) {
        const ssize_t n = ::pwrite(fd, data, std::size_t(size), off_t(at));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        at += n;
        size -= n;
    }
    return true;
}

} // namespace

OutboxJournal::OutboxJournal(bool syncEachAppend) : m_syncEachAppend(syncEachAppend)
{ }

OutboxJournal::~OutboxJournal()
{
    for (int which = 0; which < 2; ++which) {
        unmap(which);
        if (m_fds[which] >= 0)
            ::close(m_fds[which]);
    }
}

void OutboxJournal::unmap(int which)
{
    if (m_maps[which] != nullptr)
        ::munmap(m_maps[which], std::size_t(m_mapped[which]));
    m_maps[which] = nullptr;
    m_mapped[which] = 0;
}

// Not synced, file `which` is written through a shared mapping of at least
// `bytes`, its blocks reserved (a full disk fails here, not at a write
// through the mapping).
bool OutboxJournal::mapAtLeast(int which, qint64 bytes)
{
    if (bytes <= m_mapped[which])
        return true;
    qint64 size = std::max(kLeastMapped, m_mapped[which]);
    while (size < bytes)
        size *= 2;
    const int error = ::posix_fallocate(m_fds[which], 0, off_t(size));
    if (error != 0) {
        errno = error;
        return false;
    }
    void *map = ::mmap(nullptr, std::size_t(size), PROT_READ | PROT_WRITE, MAP_SHARED, m_fds[which], 0);
    if (map == MAP_FAILED)
        return false;
    unmap(which);
    m_maps[which] = static_cast<char *>(map);
    m_mapped[which] = size;
    return true;
}

bool OutboxJournal::failed(const QString &what)
{
    m_error = what;
    return false;
}

bool OutboxJournal::open(const QString &storePath, std::vector<StoredMessage> *found)
{
    for (int which = 0; which < 2; ++which) {
        m_paths[which] = storePath + QLatin1String(which == 0 ? "-outbox.0" : "-outbox.1");
        m_fds[which] = ::open(QFile::encodeName(m_paths[which]).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (m_fds[which] < 0)
            return failed(QStringLiteral("cannot open %1: %2").arg(m_paths[which], systemError()));
        if (!read(which, found))
            return false;
    }
    std::sort(found->begin(), found->end(), [](const StoredMessage &a, const StoredMessage &b) { return a.id < b.id; });
    return true;
}

// Whole records from the start; the first one cut short or damaged ends
// the file (what follows it was never acknowledged to anyone).
bool OutboxJournal::read(int which, std::vector<StoredMessage> *found)
{
    QFile file;
    if (!file.open(m_fds[which], QIODevice::ReadOnly, QFileDevice::DontCloseHandle) || !file.seek(0))
        return failed(QStringLiteral("cannot read %1: %2").arg(m_paths[which], file.errorString()));
    const qint64 size = file.size();
    qint64 at = 0;
    while (size - at >= kHeadBytes) {
        char head[kHeadBytes];
        if (file.read(head, kHeadBytes) != kHeadBytes)
            break;
        const quint32 length = le32(head);
        if (length > kMostRecordBytes || qint64(length) > size - at - kHeadBytes)
            break;
        const QByteArray payload = file.read(length);
        StoredMessage m;
        if (payload.size() != int(length) || crcOf(payload.constData(), payload.size()) != le32(head + 4) ||
            !messageOf(payload, &m))
            break;
        found->push_back(std::move(m));
        at += kHeadBytes + length;
    }
    m_sizes[which] = at;
    return true;
}

bool OutboxJournal::append(const StoredMessage &message)
{
    const int fd = m_fds[m_current];
    const qint64 at = m_sizes[m_current];
    recordOf(message, &m_record);
    const QByteArray &record = m_record;
    if (!m_syncEachAppend) {
        // Into the system's cache through the mapping, no call to it: what
        // is there outlives the process.
        if (!mapAtLeast(m_current, at + record.size()))
            return failed(QStringLiteral("cannot write to %1: %2").arg(m_paths[m_current], systemError()));
        std::memcpy(m_maps[m_current] + at, record.constData(), std::size_t(record.size()));
        m_sizes[m_current] += record.size();
        return true;
    }
    if (!writeAll(fd, at, record.constData(), record.size()) || ::fdatasync(fd) != 0) {
        const QString why = systemError();
        // A part written would hide whatever comes after it.
        if (::ftruncate(fd, at) != 0)
            return failed(QStringLiteral("cannot write to %1: %2; and cannot cut the part written: %3")
                              .arg(m_paths[m_current], why, systemError()));
        return failed(QStringLiteral("cannot write to %1: %2").arg(m_paths[m_current], why));
    }
    m_sizes[m_current] += record.size();
    return true;
}

int OutboxJournal::rotate()
{
    const int retired = m_current;
    m_current = 1 - m_current;
    return retired;
}

bool OutboxJournal::clear(int which)
{
    if (m_sizes[which] == 0)
        return true;
    if (m_maps[which] != nullptr) {
        // Zeroed, no call to the system: a record of length 0 ends the
        // reading (and what a death in the middle leaves after the zeros
        // is committed already).
        std::memset(m_maps[which], 0, std::size_t(m_sizes[which]));
    } else if (::ftruncate(m_fds[which], 0) != 0 || (m_syncEachAppend && ::fdatasync(m_fds[which]) != 0)) {
        return failed(QStringLiteral("cannot empty %1: %2").arg(m_paths[which], systemError()));
    }
    m_sizes[which] = 0;
    return true;
}

bool OutboxJournal::reset()
{
    for (int which = 0; which < 2; ++which) {
        unmap(which);
        if (::ftruncate(m_fds[which], 0) != 0 || (m_syncEachAppend && ::fdatasync(m_fds[which]) != 0) ||
            (!m_syncEachAppend && !mapAtLeast(which, kLeastMapped)))
            return failed(QStringLiteral("cannot empty %1: %2").arg(m_paths[which], systemError()));
        m_sizes[which] = 0;
    }
    return true;
}

qint64 OutboxJournal::bytes() const
{
    return m_sizes[0] + m_sizes[1];
}
