#include "amqp/amqp_fields.h"
#include "amqp/amqp_bytes.h"

#include <amqp.h>

#include <QDateTime>
#include <QVariantList>
#include <QVariantMap>

namespace amqp {

namespace {

QVariantMap read_map(const amqp_table_t& table) {
    QVariantMap map;
    for (int i = 0; i < table.num_entries; ++i) {
        map.insert(QString::fromUtf8(data_of(table.entries[i].key)), read_field(table.entries[i].value));
    }
    return map;
}

}  // namespace

QVariantHash read_table(const amqp_table_t& table) {
    QVariantHash hash;
    for (int i = 0; i < table.num_entries; ++i) {
        hash.insert(QString::fromUtf8(data_of(table.entries[i].key)), read_field(table.entries[i].value));
    }
    return hash;
}

QVariant read_field(const amqp_field_value_t& field) {
    switch (field.kind) {
        case AMQP_FIELD_KIND_BOOLEAN:
            return bool(field.value.boolean);
        case AMQP_FIELD_KIND_I8:
            return int(field.value.i8);
        case AMQP_FIELD_KIND_U8:
            return uint(field.value.u8);
        case AMQP_FIELD_KIND_I16:
            return int(field.value.i16);
        case AMQP_FIELD_KIND_U16:
            return uint(field.value.u16);
        case AMQP_FIELD_KIND_I32:
            return int(field.value.i32);
        case AMQP_FIELD_KIND_U32:
            return uint(field.value.u32);
        case AMQP_FIELD_KIND_I64:
            return qlonglong(field.value.i64);
        case AMQP_FIELD_KIND_U64:
            return qulonglong(field.value.u64);
        case AMQP_FIELD_KIND_F32:
            return double(field.value.f32);
        case AMQP_FIELD_KIND_F64:
            return field.value.f64;
        case AMQP_FIELD_KIND_DECIMAL: {
            double value = double(field.value.decimal.value);
            for (int d = 0; d < field.value.decimal.decimals; ++d) {
                value /= 10;
            }
            return value;
        }
        case AMQP_FIELD_KIND_UTF8:
            return QString::fromUtf8(data_of(field.value.bytes));
        case AMQP_FIELD_KIND_BYTES:
            return data_of(field.value.bytes);
        case AMQP_FIELD_KIND_TIMESTAMP:
            return QDateTime::fromSecsSinceEpoch(qint64(field.value.u64), Qt::UTC);
        case AMQP_FIELD_KIND_TABLE:
            return read_map(field.value.table);
        case AMQP_FIELD_KIND_ARRAY: {
            QVariantList list;
            list.reserve(field.value.array.num_entries);
            for (int i = 0; i < field.value.array.num_entries; ++i) {
                list.append(read_field(field.value.array.entries[i]));
            }
            return list;
        }
        case AMQP_FIELD_KIND_VOID:
        default:
            return QVariant();
    }
}

}  // namespace amqp
