#pragma once

#include <QByteArray>
#include <QString>
#include <vector>

namespace passthrough {

// What the service publishes to the client exchange for one uplink: one entry per
// message, in order, each with its routing key less the trailing modem id and the size
// of its body.
struct published_message {
    QString key_stem;
    int size = 0;
};
using uplink_publication = std::vector<published_message>;

// The publications of a sample of uplinks, taken from a run of the service. A consumer
// that stands in for the service repeats them in turn, one sample entry per uplink.
class publication_profile {
public:
    void add(uplink_publication uplink) { m_uplinks.push_back(std::move(uplink)); }
    bool empty() const { return m_uplinks.empty(); }
    size_t size() const { return m_uplinks.size(); }
    const uplink_publication& at(size_t index) const { return m_uplinks[index % m_uplinks.size()]; }
    double messages_per_uplink() const;
    double bytes_per_uplink() const;

    QByteArray to_json() const;
    static publication_profile from_json(const QByteArray& text);
    bool save(const QString& path) const;
    static publication_profile load(const QString& path);

    // The stem of a routing key: everything before its last dot.
    static QString stem_of(const QString& routing_key);

private:
    std::vector<uplink_publication> m_uplinks;
};

}  // namespace passthrough
