#pragma once

// The request and response examples of docs/api.md, and the comparison of a real response
// with the documented one by shape: the same keys and JSON types, recursively; values
// (ids, times, readings) are not compared.

#include <QJsonValue>
#include <QMap>
#include <QString>
#include <QStringList>
#include <vector>

namespace doc_examples {

// In the document: a line "Request `<command>`:", a ```json block, a line starting with
// "Response", a ```json block.
struct example {
    QString command;
    QJsonValue request;
    QJsonValue response;
    // The prose says the response was cut ("abbreviated"), or it holds a "..." key: the
    // real response may have more keys than the documented one.
    bool abbreviated = false;
    int line = 0;  // of the "Request" line, for messages
};

// A ```json block that is not part of an example, and the heading it stands under.
struct other_block {
    QString heading;  // without the leading #s
    int line = 0;
};

// Every example in document order; a block that is not valid JSON is an error text in
// `errors` (and its example is left out). The other ```json blocks go to `others`.
std::vector<example> read(const QString& markdown, QStringList& errors,
                          std::vector<other_block>* others = nullptr);

// Compares responses with their documented shape, learning on the way which documented
// ids (UUIDs) stand for which real ones, so that later requests can name them.
class shape_check {
public:
    // Mismatches as "path: what", empty when the shapes agree.
    QStringList compare(const QJsonValue& documented, const QJsonValue& actual, bool abbreviated);
    // Learns the real ids that the documented ones stand for.
    void learn(const QJsonValue& documented, const QJsonValue& actual);
    // The request with documented ids replaced by the real ones (keys and texts).
    QJsonValue substitute(const QJsonValue& request) const;

private:
    void compare_at(const QString& path, const QJsonValue& documented, const QJsonValue& actual, bool open,
                    QStringList& problems) const;
    QString real(const QString& documented) const { return m_ids.value(documented, documented); }

    QMap<QString, QString> m_ids;
};

}  // namespace doc_examples
