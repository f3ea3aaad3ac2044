#include "answerbudget.h"

#include <QJsonDocument>

bool AnswerBudget::take(const QJsonObject &item)
{
    const qsizetype size = QJsonDocument(item).toJson(QJsonDocument::Compact).size() + 1; // and a comma
    if (size > m_left)
        return false;
    m_left -= size;
    return true;
}
