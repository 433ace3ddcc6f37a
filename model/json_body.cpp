#include "model/json_body.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QString>
#include <algorithm>
#include <utility>
#include <vector>

namespace model {

namespace json_body_detail {

namespace {

// One member of an object being read: where its name starts (the opening quote), the
// name's text between the quotes, and where the member ends (the comma after it).
struct member {
    int begin = 0;
    int name_begin = 0;
    int name_end = 0;
    bool plain_name = true;  // ASCII without escapes: the bytes are the name
    int end = -1;
};

struct container {
    bool object = false;
    bool expect_name = false;
    std::vector<member> members;
};

// The name as Qt reads it, so that "a", "\u0061" and other spellings of one name compare
// equal. Only names with escapes or non-ASCII bytes take the detour through the parser.
QByteArray name_of(const QByteArray& body, const member& m) {
    if (m.plain_name)
        return QByteArray::fromRawData(body.constData() + m.name_begin, m.name_end - m.name_begin);
    const QByteArray quoted = body.mid(m.name_begin - 1, m.name_end - m.name_begin + 2);
    return QJsonDocument::fromJson("[" + quoted + "]").array().at(0).toString().toUtf8();
}

// Adds to `removed` every member of the object that a later member of the same name
// replaces: from its name to the comma after its value.
void collect_replaced(const QByteArray& body, const container& object,
                      std::vector<std::pair<int, int>>& removed) {
    if (object.members.size() < 2)
        return;
    std::vector<std::pair<QByteArray, int>> names;
    names.reserve(object.members.size());
    for (size_t i = 0; i < object.members.size(); ++i)
        names.emplace_back(name_of(body, object.members[i]), int(i));
    std::sort(names.begin(), names.end());
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        if (names[i].first == names[i + 1].first) {
            const member& m = object.members[size_t(names[i].second)];
            removed.emplace_back(m.begin, m.end + 1);
        }
    }
}

// Skips a string whose opening quote is at `i`: the position of its closing quote, or the
// end of the body. Sets `plain` when it holds only ASCII without escapes.
int string_end(const QByteArray& body, int i, bool& plain) {
    plain = true;
    for (++i; i < body.size(); ++i) {
        const char c = body[i];
        if (c == '"')
            return i;
        if (c == '\\') {
            plain = false;
            ++i;
        } else if (static_cast<unsigned char>(c) >= 0x80) {
            plain = false;
        }
    }
    return i;
}

}  // namespace

// Follows the structure only (strings, brackets, commas, colons); Qt's parser judges the
// rest. Where the text stops making sense the reading stops: Qt fails there as well, and
// what came before is handled.
QByteArray without_replaced_values(const QByteArray& body) {
    std::vector<container> open;
    std::vector<std::pair<int, int>> removed;
    for (int i = 0; i < body.size(); ++i) {
        const char c = body[i];
        if (c == '"') {
            bool plain = true;
            const int end = string_end(body, i, plain);
            if (!open.empty() && open.back().object && open.back().expect_name) {
                member m;
                m.begin = i;
                m.name_begin = i + 1;
                m.name_end = end;
                m.plain_name = plain;
                open.back().members.push_back(m);
                open.back().expect_name = false;
            }
            i = end;
        } else if (c == '{' || c == '[') {
            container next;
            next.object = c == '{';
            next.expect_name = next.object;
            open.push_back(std::move(next));
        } else if (c == '}' || c == ']') {
            if (open.empty() || open.back().object != (c == '}'))
                break;
            if (open.back().object)
                collect_replaced(body, open.back(), removed);
            open.pop_back();
        } else if (c == ',' && !open.empty() && open.back().object) {
            if (open.back().members.empty() || open.back().expect_name)
                break;
            open.back().members.back().end = i;
            open.back().expect_name = true;
        }
    }
    if (removed.empty())
        return body;

    // Ranges nest or lie apart; a range inside one already removed goes with it.
    std::sort(removed.begin(), removed.end());
    QByteArray out;
    out.reserve(body.size());
    int kept_from = 0;
    for (const auto& [begin, end] : removed) {
        if (begin < kept_from)
            continue;
        out.append(body.constData() + kept_from, begin - kept_from);
        kept_from = end;
    }
    out.append(body.constData() + kept_from, body.size() - kept_from);
    return out;
}

}  // namespace json_body_detail

QJsonObject object_of_body(const QByteArray& body) {
    return QJsonDocument::fromJson(json_body_detail::without_replaced_values(body)).object();
}

}  // namespace model
