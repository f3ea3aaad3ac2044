#ifndef PUSHCHAT_OUTBOXJOURNAL_H
#define PUSHCHAT_OUTBOXJOURNAL_H

// OutboxJournal: the messages this user sends, appended to a file the
// moment they are accepted, until the store has them in its tables
// (internal header).
//
// Two files beside the store, PATH-outbox.0 and PATH-outbox.1, mode 0600:
// appends go to the current one; rotate() starts the other, so that the
// retired one holds only messages the store is about to commit, and
// clear() empties it once they are. A record is its length, a CRC-32 and
// the message (its numbers, and its texts as UTF-16); a record cut short
// (a power cut in the middle of a write) ends a file's reading, and an
// append that fails is cut off again, so that nothing written after it is
// lost behind it.
//
// Not thread-safe: the owner serialises the calls.

#include "storedmessage.h"

#include <QByteArray>
#include <QString>

#include <vector>

class OutboxJournal {
public:
    /// With `syncEachAppend` an append returns once its record is on disk;
    /// without it, once it is in the system's hands (it survives the
    /// process's death, not a power cut): copied into a shared mapping of
    /// the file, whose blocks are reserved beforehand.
    explicit OutboxJournal(bool syncEachAppend);
    ~OutboxJournal();
    OutboxJournal(const OutboxJournal &) = delete;
    OutboxJournal &operator=(const OutboxJournal &) = delete;

    /// Opens (creating) the two files of the store at `storePath` and
    /// reads what they hold into `found`, in the order of the messages'
    /// ids. False, with error() set, when a file cannot be opened or read.
    bool open(const QString &storePath, std::vector<StoredMessage> *found);
    /// Appends one message; false (error() set) when it could not be
    /// written whole, and then the file is as it was.
    bool append(const StoredMessage &message);
    /// Directs appends to the other file; the index of the retired one.
    int rotate();
    /// Empties file `which` (0 or 1); false (error() set) when it cannot.
    bool clear(int which);
    /// Empties both files to nothing, after open() (and what it found is
    /// stored); false (error() set) when it cannot.
    bool reset();
    /// Both files' sizes.
    qint64 bytes() const;
    QString error() const { return m_error; }

private:
    bool read(int which, std::vector<StoredMessage> *found);
    bool failed(const QString &what);
    bool mapAtLeast(int which, qint64 bytes);
    void unmap(int which);

    const bool m_syncEachAppend;
    QString m_paths[2];
    int m_fds[2] = { -1, -1 };
    qint64 m_sizes[2] = { 0, 0 };           // the records' bytes (a mapped file is longer, zeros after them)
    char *m_maps[2] = { nullptr, nullptr }; // not synced: the files' shared mappings
    qint64 m_mapped[2] = { 0, 0 };
    int m_current = 0;
    QByteArray m_record; // the last record written: its storage serves the next
    QString m_error;
};

#endif // PUSHCHAT_OUTBOXJOURNAL_H
