#include "databases/sqlite/codec.h"

#include <QJsonArray>
#include <limits>

#include "model/json_text.h"
#include "model/query_bounds.h"

namespace sqlite_db {

QVariant time_value(const QDateTime& t) {
    return t.isValid() ? QVariant(t.toMSecsSinceEpoch()) : QVariant(QVariant::LongLong);
}

QDateTime time_from(const QVariant& v) {
    return v.isNull() ? QDateTime() : QDateTime::fromMSecsSinceEpoch(v.toLongLong(), Qt::UTC);
}

QVariant document_value(const QJsonDocument& d) {
    return d.isNull() ? QVariant(QVariant::String) : QVariant(QString::fromUtf8(model::compact_text(d)));
}

QByteArray document_text(const QJsonDocument& d) {
    return d.isNull() ? QByteArray() : model::compact_text(d);
}

QJsonDocument document_from(const QVariant& v) {
    return v.isNull() ? QJsonDocument() : QJsonDocument::fromJson(v.toString().toUtf8());
}

QString object_text(const QJsonObject& o) {
    return QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

QJsonObject object_from(const QVariant& v) {
    return QJsonDocument::fromJson(v.toString().toUtf8()).object();
}

QString text_value(const QString& s) {
    return s.isNull() ? QString("") : s;
}

QString json_list(const QStringList& items) {
    return QString::fromUtf8(QJsonDocument(QJsonArray::fromStringList(items)).toJson(QJsonDocument::Compact));
}

QString in_filter(const QString& column, const QString& name, int count) {
    if (count > max_listed_items)
        return QString("%1 IN (SELECT j.value FROM json_each(:%2) AS j)").arg(column, name);
    QStringList placeholders;
    for (int i = 0; i < count; ++i)
        placeholders << QString(":%1%2").arg(name).arg(i);
    return QString("%1 IN (%2)").arg(column, placeholders.join(", "));
}

void bind_in(QSqlQuery& query, const QString& name, const QStringList& items) {
    if (items.size() > max_listed_items) {
        query.bindValue(":" + name, json_list(items));
        return;
    }
    for (int i = 0; i < items.size(); ++i)
        query.bindValue(QString(":%1%2").arg(name).arg(i), items[i]);
}

qint64 range_from(const QDateTime& from) {
    return model::range_start_ms(from);
}

qint64 range_to(const QDateTime& to) {
    return model::range_end_ms(to);
}

int sql_limit(int limit) {
    return limit > 0 ? limit : -1;
}

qint64 now_ms() {
    return QDateTime::currentMSecsSinceEpoch();
}

}  // namespace sqlite_db
