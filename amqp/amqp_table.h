#pragma once

#include <amqp.h>

#include <QByteArray>
#include <QString>
#include <QVariantHash>
#include <deque>
#include <vector>

#include "app/logger.h"

namespace amqp {

// Builds an AMQP field table from a QVariantHash; owns every byte the table points to.
class table_builder {
public:
    // Without a log, arguments that cannot be sent are left out silently.
    explicit table_builder(logger* log) : m_log(log) {}

    amqp_table_t build(const QVariantHash& values) {
        amqp_table_t table{0, nullptr};
        if (values.isEmpty()) {
            return table;
        }
        m_entries.emplace_back();
        auto& entries = m_entries.back();
        entries.reserve(size_t(values.size()));
        for (auto it = values.cbegin(); it != values.cend(); ++it) {
            amqp_table_entry_t entry{};
            entry.key = bytes(it.key().toUtf8());
            if (fill(it.value(), &entry.value, it.key())) {
                entries.push_back(entry);
            }
        }
        table.num_entries = int(entries.size());
        table.entries = entries.data();
        return table;
    }

private:
    amqp_bytes_t bytes(const QByteArray& data) {
        m_bytes.push_back(data);
        amqp_bytes_t out;
        out.len = size_t(m_bytes.back().size());
        out.bytes = const_cast<char*>(m_bytes.back().constData());
        return out;
    }

    bool fill(const QVariant& v, amqp_field_value_t* out, const QString& key) {
        switch (int(v.type())) {
            case QMetaType::Bool:
                out->kind = AMQP_FIELD_KIND_BOOLEAN;
                out->value.boolean = v.toBool() ? 1 : 0;
                return true;
            case QMetaType::Int:
            case QMetaType::UInt:
            case QMetaType::Short:
            case QMetaType::UShort:
                out->kind = AMQP_FIELD_KIND_I32;
                out->value.i32 = v.toInt();
                return true;
            case QMetaType::LongLong:
            case QMetaType::ULongLong:
            case QMetaType::Long:
            case QMetaType::ULong:
                out->kind = AMQP_FIELD_KIND_I64;
                out->value.i64 = v.toLongLong();
                return true;
            case QMetaType::Double:
            case QMetaType::Float:
                out->kind = AMQP_FIELD_KIND_F64;
                out->value.f64 = v.toDouble();
                return true;
            case QMetaType::QString:
            case QMetaType::QByteArray:
                out->kind = AMQP_FIELD_KIND_UTF8;
                out->value.bytes = bytes(v.toByteArray());
                return true;
            case QMetaType::QVariantHash:
            case QMetaType::QVariantMap: {
                QVariantHash nested;
                const QVariantMap map = v.toMap();
                for (auto it = map.cbegin(); it != map.cend(); ++it) {
                    nested.insert(it.key(), it.value());
                }
                out->kind = AMQP_FIELD_KIND_TABLE;
                out->value.table = build(v.type() == QVariant::Hash ? v.toHash() : nested);
                return true;
            }
            default:
                if (m_log) {
                    log_line(*m_log, Warning) << "amqp: argument " << key << " of type " << v.typeName()
                                              << " cannot be sent and is left out";
                }
                return false;
        }
    }

    logger* m_log = nullptr;
    std::deque<QByteArray> m_bytes;  // a deque keeps each element in place
    std::deque<std::vector<amqp_table_entry_t>> m_entries;
};

}  // namespace amqp
