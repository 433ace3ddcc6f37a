#include "tests/e2e/doc_examples.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace doc_examples {

namespace {

const QRegularExpression request_line("^Request `([a-z_]+)`:$");
const QRegularExpression uuid("^\\{?[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\\}?$");

// The ```json block at or after line i; i ends after its closing fence.
bool json_block(const QStringList& lines, int& i, QJsonValue& value, QString& error) {
    while (i < lines.size() && lines[i].trimmed() != "```json") {
        if (lines[i].startsWith("Request `") || lines[i].startsWith("#")) {
            error = "no ```json block";
            return false;
        }
        ++i;
    }
    QByteArray text;
    for (++i; i < lines.size() && lines[i].trimmed() != "```"; ++i) {
        text += lines[i].toUtf8() + "\n";
    }
    ++i;
    QJsonParseError parse{};
    const QJsonDocument document = QJsonDocument::fromJson(text, &parse);
    if (parse.error != QJsonParseError::NoError) {
        error = "not JSON: " + parse.errorString();
        return false;
    }
    value = document.isObject() ? QJsonValue(document.object()) : QJsonValue(document.array());
    return true;
}

QString type_name(const QJsonValue& value) {
    switch (value.type()) {
        case QJsonValue::Null:
            return "null";
        case QJsonValue::Bool:
            return "boolean";
        case QJsonValue::Double:
            return "number";
        case QJsonValue::String:
            return "string";
        case QJsonValue::Array:
            return "array";
        case QJsonValue::Object:
            return "object";
        case QJsonValue::Undefined:
            break;
    }
    return "missing";
}

}  // namespace

std::vector<example> read(const QString& markdown, QStringList& errors, std::vector<other_block>* others) {
    const QStringList lines = markdown.split('\n');
    std::vector<example> examples;
    int prose_start = 0;
    QString heading;
    for (int i = 0; i < lines.size(); ++i) {
        if (lines[i].startsWith('#')) {
            prose_start = i;  // what a section says before its first example is its own
            heading = lines[i];
            heading.remove(QRegularExpression("^#+\\s*"));
        }
        if (lines[i].trimmed() == "```json" && others) {
            others->push_back(other_block{heading, i + 1});  // examples skip past their own blocks
        }
        const QRegularExpressionMatch match = request_line.match(lines[i]);
        if (!match.hasMatch()) {
            continue;
        }
        example e;
        e.command = match.captured(1);
        e.line = i + 1;
        QString error;
        int j = i + 1;
        if (!json_block(lines, j, e.request, error)) {
            errors.append(QString("line %1 (%2 request): %3").arg(e.line).arg(e.command, error));
            continue;
        }
        while (j < lines.size() && !lines[j].startsWith("Response") && !lines[j].startsWith("Request `")) {
            ++j;
        }
        if (j == lines.size() || !lines[j].startsWith("Response")) {
            errors.append(QString("line %1 (%2): no Response after the request").arg(e.line).arg(e.command));
            continue;
        }
        const QString prose = lines.mid(prose_start, i - prose_start).join('\n') + "\n" + lines[j];
        if (!json_block(lines, j, e.response, error)) {
            errors.append(QString("line %1 (%2 response): %3").arg(e.line).arg(e.command, error));
            continue;
        }
        e.abbreviated = prose.contains("abbreviated");
        examples.push_back(e);
        prose_start = j;
        i = j - 1;
    }
    return examples;
}

QStringList shape_check::compare(const QJsonValue& documented, const QJsonValue& actual, bool abbreviated) {
    QStringList problems;
    compare_at("", documented, actual, abbreviated, problems);
    return problems;
}

void shape_check::compare_at(const QString& path, const QJsonValue& documented, const QJsonValue& actual,
                             bool open, QStringList& problems) const {
    if (documented.type() != actual.type()) {
        problems.append(QString("%1: documented %2, got %3")
                            .arg(path.isEmpty() ? "(top)" : path, type_name(documented), type_name(actual)));
        return;
    }
    if (documented.isObject()) {
        const QJsonObject doc = documented.toObject();
        const QJsonObject got = actual.toObject();
        const bool cut = open || doc.contains("...");
        QStringList expected;
        for (auto it = doc.begin(); it != doc.end(); ++it) {
            if (it.key() == "...") {
                continue;
            }
            const QString key = real(it.key());
            expected.append(key);
            compare_at(path + "/" + key, it.value(), got.value(key), open, problems);
        }
        if (!cut) {
            for (const QString& key : got.keys()) {
                if (!expected.contains(key)) {
                    problems.append(QString("%1/%2: not documented").arg(path, key));
                }
            }
        }
        return;
    }
    if (documented.isArray()) {
        const QJsonArray doc = documented.toArray();
        const QJsonArray got = actual.toArray();
        if (doc.isEmpty() != got.isEmpty()) {
            problems.append(
                QString("%1: documented %2 elements, got %3").arg(path).arg(doc.size()).arg(got.size()));
            return;
        }
        // Each real element has the shape of one of the documented ones.
        for (int i = 0; i < got.size(); ++i) {
            QStringList first;
            bool matched = false;
            for (int d = 0; d < doc.size() && !matched; ++d) {
                QStringList attempt;
                compare_at(QString("%1[%2]").arg(path).arg(i), doc[d], got[i], open, attempt);
                matched = attempt.isEmpty();
                if (d == 0) {
                    first = attempt;
                }
            }
            if (!matched) {
                problems += first;
            }
        }
    }
}

void shape_check::learn(const QJsonValue& documented, const QJsonValue& actual) {
    if (documented.isString() && actual.isString()) {
        const QString doc = documented.toString();
        if (uuid.match(doc).hasMatch() && doc != actual.toString()) {
            m_ids.insert(doc, actual.toString());
        }
    } else if (documented.isObject() && actual.isObject()) {
        const QJsonObject doc = documented.toObject();
        const QJsonObject got = actual.toObject();
        for (auto it = doc.begin(); it != doc.end(); ++it) {
            learn(it.value(), got.value(real(it.key())));
        }
    } else if (documented.isArray() && actual.isArray()) {
        const QJsonArray doc = documented.toArray();
        const QJsonArray got = actual.toArray();
        for (int i = 0; i < doc.size() && i < got.size(); ++i) {
            learn(doc[i], got[i]);
        }
    }
}

QJsonValue shape_check::substitute(const QJsonValue& request) const {
    if (request.isString()) {
        return real(request.toString());
    }
    if (request.isObject()) {
        QJsonObject out;
        const QJsonObject in = request.toObject();
        for (auto it = in.begin(); it != in.end(); ++it) {
            out.insert(real(it.key()), substitute(it.value()));
        }
        return out;
    }
    if (request.isArray()) {
        QJsonArray out;
        for (const QJsonValue& element : request.toArray()) {
            out.append(substitute(element));
        }
        return out;
    }
    return request;
}

}  // namespace doc_examples
