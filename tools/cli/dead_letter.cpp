#include "tools/cli/dead_letter.h"

#include <QVariantList>
#include <QVariantMap>

namespace cli {

namespace {

dead_letter_origin missing(const QString& why) {
    dead_letter_origin origin;
    origin.why_not = why;
    return origin;
}

}  // namespace

dead_letter_origin original_route(const QVariantHash& headers) {
    const QVariant deaths = headers.value("x-death");
    if (!deaths.isValid()) {
        return missing("no x-death header");
    }
    if (deaths.type() != QVariant::List || deaths.toList().isEmpty()) {
        return missing("x-death is not a list of entries");
    }
    const QVariant first = deaths.toList().first();
    if (first.type() != QVariant::Map) {
        return missing("the first x-death entry is not a table");
    }
    const QVariantMap entry = first.toMap();
    const QVariant keys = entry.value("routing-keys");
    if (keys.type() != QVariant::List || keys.toList().isEmpty()) {
        return missing("the first x-death entry has no routing-keys");
    }
    const QVariant key = keys.toList().first();
    if (key.type() != QVariant::String && key.type() != QVariant::ByteArray) {
        return missing("the first routing key in x-death is not a text");
    }
    dead_letter_origin origin;
    origin.found = true;
    origin.routing_key = key.toString();
    origin.exchange = entry.value("exchange").toString();
    return origin;
}

}  // namespace cli
