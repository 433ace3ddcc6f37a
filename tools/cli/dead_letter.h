#pragma once

#include <QString>
#include <QVariantHash>

namespace cli {

// Where a dead-lettered message was first published, from its "x-death" header: the
// first entry's "exchange" and the first of its "routing-keys". The broker keeps these
// even when the queue's x-dead-letter-routing-key gave the message another key.
struct dead_letter_origin {
    bool found = false;
    QString exchange;
    QString routing_key;
    QString why_not;  // when not found: what the headers lack
};

dead_letter_origin original_route(const QVariantHash& headers);

}  // namespace cli
