#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <utility>
#include <vector>

// A reply object keyed by modem id in decimal. A QJsonObject keeps its keys sorted as
// text, so inserting keys in any other order (numeric, or as a request listed them)
// moves every key after the new one, which grows with the square of the modem count.
// The entries are gathered first and inserted in key order.
class keyed_reply {
public:
    // A later value for the same modem replaces the earlier one.
    void insert(int modem_id, QJsonValue value);
    bool empty() const { return m_entries.empty(); }
    QJsonObject take();

private:
    std::vector<std::pair<QString, QJsonValue>> m_entries;
};
