#include "messageview.h"

#include <QIdentityProxyModel>
#include <QScrollBar>
#include <QStyledItemDelegate>

namespace {

using Messages = StoredMessageModel;

// Qt's views fetch more when their last row shows, which here is the
// newest: the view asks for older pages itself, at the top.
class PagedAtTheTop : public QIdentityProxyModel {
public:
    using QIdentityProxyModel::QIdentityProxyModel;
    bool canFetchMore(const QModelIndex &) const override { return false; }
};

class MessageDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    void initStyleOption(QStyleOptionViewItem *option, const QModelIndex &index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        const auto state = StoredState(index.data(Messages::StateRole).toInt());
        option->text = QStringLiteral("%1  %2: %3")
                           .arg(MessageView::shortTime(index.data(Messages::TimeRole).toDateTime()),
                                MessageView::nameOf(index.data(Messages::SenderRole).toString()),
                                index.data(Messages::BodyRole).toString());
        if (!index.data(Messages::OutgoingRole).toBool())
            return;
        if (state == StoredState::Pending) {
            option->text += MessageView::tr("  · pending");
            option->palette.setColor(QPalette::Text, QColor(Qt::gray));
        } else {
            option->text += state == StoredState::Read ? QStringLiteral("  ✓✓") : QStringLiteral("  ✓");
        }
    }
};

} // namespace

MessageView::MessageView(StoredMessageModel *messages, QWidget *parent) : QListView(parent), m_messages(messages)
{
    auto *rows = new PagedAtTheTop(this);
    rows->setSourceModel(messages);
    setModel(rows);
    setItemDelegate(new MessageDelegate(this));
    setSelectionMode(NoSelection);
    setWordWrap(true);
}

QString MessageView::shortTime(const QDateTime &at)
{
    const QDateTime local = at.toLocalTime();
    return local.date() == QDate::currentDate() ? local.toString(QStringLiteral("hh:mm"))
                                                : local.toString(QStringLiteral("d MMM"));
}

QString MessageView::nameOf(const QString &jid) { return jid.section(QLatin1Char('@'), 0, 0); }

void MessageView::reset()
{
    QListView::reset();
    scrollToBottom();
}

// At the bottom it stays there; an older page goes in above what shows.
void MessageView::rowsInserted(const QModelIndex &parent, int start, int end)
{
    QScrollBar *bar = verticalScrollBar();
    const int fromBottom = bar->maximum() - bar->value();
    const bool older = start == 0 && end + 1 < model()->rowCount(parent);
    QListView::rowsInserted(parent, start, end);
    if (fromBottom == 0 || older) {
        executeDelayedItemsLayout();
        bar->setValue(bar->maximum() - fromBottom);
    }
}

void MessageView::verticalScrollbarValueChanged(int value)
{
    QListView::verticalScrollbarValueChanged(value);
    if (value == verticalScrollBar()->minimum() && m_messages && m_messages->canFetchMore())
        m_messages->fetchMore();
}
