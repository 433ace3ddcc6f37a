#include "databases/postgres/messages_db.h"

#include "databases/postgres/backend.h"
#include "databases/postgres/pg_config.h"

namespace postgres_db {

messages_database::messages_database(std::shared_ptr<postgres_db::backend> db)
    : m_db(std::move(db)), m_ul(*m_db), m_dl(*m_db) {}

QString messages_database::backend() const {
    return plugin_name;
}

int messages_database::purge_expired(int max_rows) {
    return m_db->purge_tables({"ul_messages", "dl_messages"}, max_rows);
}

qint64 messages_database::uplink_count() {
    return m_db->row_count("ul_messages");
}

qint64 messages_database::downlink_count() {
    return m_db->row_count("dl_messages");
}

interfaces::IWriteBatch* messages_database::write_batch() {
    return m_db.get();
}

interfaces::IStoreLink* messages_database::store_link() {
    return m_db.get();
}

}  // namespace postgres_db
