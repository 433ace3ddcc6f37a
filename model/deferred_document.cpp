#include "model/deferred_document.h"

namespace model {

deferred_document::deferred_document(QJsonDocument document) {
    if (!document.isNull()) {
        m_state = std::make_shared<state>(std::move(document));
    }
}

deferred_document deferred_document::built_by(builder build) {
    deferred_document d;
    d.m_state = std::make_shared<state>(std::move(build));
    return d;
}

const QJsonDocument& deferred_document::document() const {
    static const QJsonDocument null_document;
    if (!m_state) {
        return null_document;
    }
    if (m_state->deferred) {
        state& s = *m_state;
        std::call_once(s.once, [&s] {
            s.document = s.build();
            s.build = nullptr;  // releases whatever the builder held
            s.built = true;
        });
    }
    return m_state->document;
}

bool deferred_document::is_built() const {
    return !m_state || m_state->built;
}

}  // namespace model
