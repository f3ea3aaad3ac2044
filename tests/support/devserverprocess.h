#ifndef DEVSERVERPROCESS_H
#define DEVSERVERPROCESS_H

#include "eventlog.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

/// Starts the development server `program` with `args`, its JSON lines into
/// the file `lines` (replaced); its HTTP port once its "ready" line is whole
/// (other lines may come first), or 0 if that does not come in time.
inline int startDevServer(QProcess &server, const QString &program, const QStringList &args, const QString &lines)
{
    QFile::remove(lines);
    server.setStandardOutputFile(lines);
    server.start(program, args);
    int port = 0;
    eventually([&] {
        QFile out(lines);
        out.open(QIODevice::ReadOnly);
        for (const QByteArray &text : out.readAll().split('\n'))
            if (const QJsonObject line = QJsonDocument::fromJson(text).object(); line.value("event") == "ready")
                port = line.value("http_port").toInt();
        return port != 0;
    });
    return port;
}

#endif // DEVSERVERPROCESS_H
