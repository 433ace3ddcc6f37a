#include "tools/cli/json_printer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace cli {

namespace {

const char* const key_colour = "\x1b[34;1m";
const char* const string_colour = "\x1b[32m";
const char* const number_colour = "\x1b[33m";
const char* const literal_colour = "\x1b[35m";
const char* const reset = "\x1b[0m";

class printer {
public:
    explicit printer(bool colours) : m_colours(colours) {}

    void value(const QJsonValue& v, int depth) {
        if (v.isObject()) {
            object(v.toObject(), depth);
        } else if (v.isArray()) {
            array(v.toArray(), depth);
        } else {
            scalar(v);
        }
    }

    QString text() const { return m_text; }

private:
    void object(const QJsonObject& o, int depth) {
        if (o.isEmpty()) {
            m_text += "{}";
            return;
        }
        m_text += "{\n";
        int left = o.size();
        for (auto it = o.begin(); it != o.end(); ++it) {
            indent(depth + 1);
            painted(key_colour, quoted(it.key()));
            m_text += ": ";
            value(it.value(), depth + 1);
            m_text += --left > 0 ? ",\n" : "\n";
        }
        indent(depth);
        m_text += "}";
    }

    void array(const QJsonArray& a, int depth) {
        if (a.isEmpty()) {
            m_text += "[]";
            return;
        }
        m_text += "[\n";
        for (int i = 0; i < a.size(); ++i) {
            indent(depth + 1);
            value(a.at(i), depth + 1);
            m_text += i + 1 < a.size() ? ",\n" : "\n";
        }
        indent(depth);
        m_text += "]";
    }

    void scalar(const QJsonValue& v) {
        // Qt's own writer gives numbers and escapes exactly as in compact JSON.
        const QString written =
            QString::fromUtf8(QJsonDocument(QJsonArray{v}).toJson(QJsonDocument::Compact));
        const QString inner = written.mid(1, written.size() - 2);
        const char* colour = v.isString() ? string_colour : v.isDouble() ? number_colour : literal_colour;
        painted(colour, inner);
    }

    static QString quoted(const QString& key) {
        const QString written =
            QString::fromUtf8(QJsonDocument(QJsonArray{QJsonValue(key)}).toJson(QJsonDocument::Compact));
        return written.mid(1, written.size() - 2);
    }

    void painted(const char* colour, const QString& text) {
        if (m_colours) {
            m_text += QLatin1String(colour) + text + QLatin1String(reset);
        } else {
            m_text += text;
        }
    }

    void indent(int depth) { m_text += QString(depth * 4, ' '); }

    bool m_colours;
    QString m_text;
};

}  // namespace

QString format_json(const QJsonValue& value, bool colours) {
    printer p(colours);
    p.value(value, 0);
    return p.text();
}

}  // namespace cli
