#include "outboxjournal.h"

#include <QDataStream>
#include <QFile>
#include <QIODevice>

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr quint32 kMostRecordBytes = 256u << 20; // larger lengths are damage, not records
constexpr int kHeadBytes = 8;                    // length, CRC-32

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

QByteArray recordOf(const StoredMessage &m)
{
    QByteArray record(kHeadBytes, '\0');
    {
        QDataStream out(&record, QIODevice::Append);
        out.setVersion(QDataStream::Qt_5_0);
        out << qint64(m.id) << m.conversation << m.key << m.sender << qint64(m.time) << m.stamp << m.body
            << qint32(m.bodyType) << qint32(m.messageType) << qint32(m.securityLevel) << qint32(m.state);
    }
    const int payload = record.size() - kHeadBytes;
    putLe32(record.data(), quint32(payload));
    putLe32(record.data() + 4, crcOf(record.constData() + kHeadBytes, payload));
    return record;
}

bool messageOf(const QByteArray &payload, StoredMessage *m)
{
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

bool writeAll(int fd, const char *data, qint64 size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, std::size_t(size));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= n;
    }
    return true;
}

} // namespace

OutboxJournal::OutboxJournal(bool syncEachAppend) : syncEachAppend_(syncEachAppend)
{ }

OutboxJournal::~OutboxJournal()
{
    for (const int fd : fds_) {
        if (fd >= 0)
            ::close(fd);
    }
}

bool OutboxJournal::failed(const QString &what)
{
    error_ = what;
    return false;
}

bool OutboxJournal::open(const QString &storePath, std::vector<StoredMessage> *found)
{
    for (int which = 0; which < 2; ++which) {
        paths_[which] = storePath + QLatin1String(which == 0 ? "-outbox.0" : "-outbox.1");
        fds_[which] =
            ::open(QFile::encodeName(paths_[which]).constData(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (fds_[which] < 0)
            return failed(QStringLiteral("cannot open %1: %2").arg(paths_[which], systemError()));
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
    if (!file.open(fds_[which], QIODevice::ReadOnly, QFileDevice::DontCloseHandle) || !file.seek(0))
        return failed(QStringLiteral("cannot read %1: %2").arg(paths_[which], file.errorString()));
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
    sizes_[which] = size;
    return true;
}

bool OutboxJournal::append(const StoredMessage &message)
{
    const int fd = fds_[current_];
    const QByteArray record = recordOf(message);
    if (!writeAll(fd, record.constData(), record.size()) || (syncEachAppend_ && ::fdatasync(fd) != 0)) {
        const QString why = systemError();
        // A part written would hide whatever comes after it.
        if (::ftruncate(fd, sizes_[current_]) != 0)
            return failed(QStringLiteral("cannot write to %1: %2; and cannot cut the part written: %3")
                              .arg(paths_[current_], why, systemError()));
        return failed(QStringLiteral("cannot write to %1: %2").arg(paths_[current_], why));
    }
    sizes_[current_] += record.size();
    return true;
}

int OutboxJournal::rotate()
{
    const int retired = current_;
    current_ = 1 - current_;
    return retired;
}

bool OutboxJournal::clear(int which)
{
    if (sizes_[which] == 0)
        return true;
    if (::ftruncate(fds_[which], 0) != 0 || (syncEachAppend_ && ::fdatasync(fds_[which]) != 0))
        return failed(QStringLiteral("cannot empty %1: %2").arg(paths_[which], systemError()));
    sizes_[which] = 0;
    return true;
}

qint64 OutboxJournal::bytes() const
{
    return sizes_[0] + sizes_[1];
}
