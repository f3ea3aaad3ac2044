#include "messageview.h"

#include <QIdentityProxyModel>
#include <QPainter>
#include <QScrollBar>
#include <QStyledItemDelegate>

#include <algorithm>

namespace {

using Messages = StoredMessageModel;

// Qt's views fetch more when their last row shows, which here is the
// newest: the view asks for older pages itself, at the top.
class PagedAtTheTop : public QIdentityProxyModel {
public:
    using QIdentityProxyModel::QIdentityProxyModel;
    bool canFetchMore(const QModelIndex &) const override { return false; }
};

// A message as a bubble: the user's own on the right in blue, the peer's
// on the left in grey; above the text, small, who and when (and, for the
// user's own, "pending" until the broker has it, then ✓ sent, ✓✓ read).
class MessageDelegate : public QStyledItemDelegate {
public:
    explicit MessageDelegate(QListView *view) : QStyledItemDelegate(view), m_view(view) { }

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        const Bubble b = layout(option, index);
        painter->save();
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(Qt::NoPen);
        painter->setBrush(b.own ? QColor(0xd6, 0xe9, 0xff) : QColor(0xee, 0xee, 0xee));
        painter->drawRoundedRect(b.frame, 8, 8);
        painter->setFont(small(option.font));
        painter->setPen(b.pending ? QColor(0xb0, 0x60, 0x00) : QColor(0x70, 0x70, 0x70));
        painter->drawText(b.head, Qt::AlignLeft | Qt::TextSingleLine, b.headText);
        painter->setFont(option.font);
        painter->setPen(b.pending ? QColor(0x80, 0x80, 0x80) : option.palette.color(QPalette::Text));
        painter->drawText(b.body, Qt::TextWordWrap, b.bodyText);
        painter->restore();
    }

    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        const Bubble b = layout(option, index);
        return QSize(m_view->viewport()->width(), b.frame.height() + 2 * kGap);
    }

private:
    static constexpr int kGap = 3, kPad = 7;
    struct Bubble {
        bool own, pending;
        QString headText, bodyText;
        QRect frame, head, body;
    };

    static QFont small(QFont font)
    {
        font.setPointSizeF(font.pointSizeF() * 0.85);
        return font;
    }

    Bubble layout(const QStyleOptionViewItem &option, const QModelIndex &index) const
    {
        Bubble b;
        const auto state = StoredState(index.data(Messages::StateRole).toInt());
        b.own = index.data(Messages::OutgoingRole).toBool();
        b.pending = b.own && state == StoredState::Pending;
        const QString when = MessageView::shortTime(index.data(Messages::TimeRole).toDateTime());
        b.headText =
            b.own ? when + (b.pending                       ? MessageView::tr("  · pending")
                               : state == StoredState::Read ? QStringLiteral("  ✓✓")
                                                            : QStringLiteral("  ✓"))
                  : MessageView::nameOf(index.data(Messages::SenderRole).toString()) + QStringLiteral("  ") + when;
        b.bodyText = index.data(Messages::BodyRole).toString();
        const int width = m_view->viewport()->width();
        const int most = std::max(120, width * 7 / 10) - 2 * kPad;
        const QFontMetrics body(option.font), head(small(option.font));
        const QRect text = body.boundingRect(QRect(0, 0, most, 1 << 20), Qt::TextWordWrap, b.bodyText);
        const int inner = std::min(most, std::max(text.width(), head.horizontalAdvance(b.headText)));
        const int left = b.own ? width - inner - 2 * kPad - 6 : 6;
        const int top = option.rect.top() + kGap;
        b.frame = QRect(left, top, inner + 2 * kPad, head.height() + text.height() + 2 * kPad);
        b.head = QRect(left + kPad, top + kPad, inner, head.height());
        b.body = QRect(left + kPad, b.head.bottom() + 1, inner, text.height());
        return b;
    }

    QListView *m_view;
};

} // namespace

MessageView::MessageView(StoredMessageModel *messages, QWidget *parent) : QListView(parent), m_messages(messages)
{
    auto *rows = new PagedAtTheTop(this);
    rows->setSourceModel(messages);
    setModel(rows);
    setItemDelegate(new MessageDelegate(this));
    setSelectionMode(NoSelection);
    setResizeMode(Adjust); // bubbles follow the width
    setVerticalScrollMode(ScrollPerPixel);
}

QString MessageView::shortTime(const QDateTime &at)
{
    const QDateTime local = at.toLocalTime();
    return local.date() == QDate::currentDate() ? local.toString(QStringLiteral("hh:mm"))
                                                : local.toString(QStringLiteral("d MMM"));
}

QString MessageView::nameOf(const QString &jid)
{
    return jid.section(QLatin1Char('@'), 0, 0);
}

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
