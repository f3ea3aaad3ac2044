#include "jsonlinewriter.h"

#include <QByteArray>
#include <QJsonDocument>

JsonLineWriter::JsonLineWriter(std::FILE *out) : m_out(out)
{ }

void JsonLineWriter::write(const QJsonObject &object)
{
    QByteArray line = QJsonDocument(object).toJson(QJsonDocument::Compact);
    line.append('\n');
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), m_out);
    std::fflush(m_out);
}
