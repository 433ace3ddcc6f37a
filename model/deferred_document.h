#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QVariant>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace model {

// A JSON document that is built the first time someone reads it. The driver's decoded
// content of an uplink goes to the store and to the clients as text, so its document form
// is wanted only now and then (a downlink confirmation, a reply listing it): building it
// for every uplink cost more than all the rest of the driver's work.
//
// Reads behave as those of the QJsonDocument it stands for. Copies share the document
// (built once for all of them); assigning a document replaces it in this copy only.
class deferred_document {
public:
    using builder = std::function<QJsonDocument()>;

    deferred_document() = default;
    // Implicit, so that a document is assigned as before.
    deferred_document(QJsonDocument document);  // NOLINT(google-explicit-constructor)
    // The builder runs at most once, on the first read, and may run on any thread.
    static deferred_document built_by(builder build);

    const QJsonDocument& document() const;
    operator const QJsonDocument&() const { return document(); }  // NOLINT(google-explicit-constructor)
    // Whether the document exists yet (a deferred one that nobody read has not).
    bool is_built() const;

    QJsonObject object() const { return document().object(); }
    QJsonArray array() const { return document().array(); }
    bool isNull() const { return document().isNull(); }
    bool isEmpty() const { return document().isEmpty(); }
    bool isObject() const { return document().isObject(); }
    bool isArray() const { return document().isArray(); }
    QByteArray toJson(QJsonDocument::JsonFormat format = QJsonDocument::Indented) const {
        return document().toJson(format);
    }
    QVariant toVariant() const { return document().toVariant(); }

private:
    struct state {
        explicit state(QJsonDocument d) : document(std::move(d)), built(true) {}
        explicit state(builder b) : build(std::move(b)), deferred(true) {}
        builder build;  // dropped once it ran
        QJsonDocument document;
        std::once_flag once;
        std::atomic<bool> built{false};
        const bool deferred = false;
    };
    std::shared_ptr<state> m_state;  // none: the null document
};

inline bool operator==(const deferred_document& a, const deferred_document& b) {
    return a.document() == b.document();
}
inline bool operator!=(const deferred_document& a, const deferred_document& b) {
    return !(a == b);
}
inline bool operator==(const deferred_document& a, const QJsonDocument& b) {
    return a.document() == b;
}
inline bool operator==(const QJsonDocument& a, const deferred_document& b) {
    return a == b.document();
}
inline bool operator!=(const deferred_document& a, const QJsonDocument& b) {
    return !(a == b);
}
inline bool operator!=(const QJsonDocument& a, const deferred_document& b) {
    return !(a == b);
}

}  // namespace model
