#include "databases/sqlite/messages_db.h"

#include <QSqlQuery>

#include "databases/sqlite/backend.h"
#include "databases/sqlite/codec.h"
#include "databases/sqlite/sqlite_config.h"

namespace sqlite_db {

messages_database::messages_database(std::shared_ptr<sqlite_db::backend> db)
    : m_db(std::move(db)), m_ul(*m_db), m_dl(*m_db) {}

QString messages_database::backend() const {
    return plugin_name;
}

int messages_database::purge_expired(int max_rows) {
    return m_db->purge_tables({"ul_messages", "dl_messages"}, max_rows);
}

qint64 messages_database::uplink_count() {
    return row_count(*m_db, "ul_messages");
}

qint64 messages_database::downlink_count() {
    return row_count(*m_db, "dl_messages");
}

qint64 row_count(sqlite_db::backend& db, const QString& table) {
    // The table name is one of the schema's own.
    QSqlQuery& q = db.statement(QString("SELECT COUNT(*) FROM %1").arg(table));
    db.run(q);
    const qint64 count = q.next() ? q.value(0).toLongLong() : 0;
    q.finish();
    return count;
}

interfaces::IWriteBatch* messages_database::write_batch() {
    return m_db.get();
}

}  // namespace sqlite_db
