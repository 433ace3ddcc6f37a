#include "model/json_body.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QString>
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace model {

namespace json_body_detail {

namespace {

// One member of an object being read: where it starts (the opening quote of its name),
// where its name ends (the closing quote) and where the member ends (the comma after
// it, when another member follows).
struct member {
    int begin = 0;
    int name_end = 0;
    bool escaped_name = false;
    uint64_t name_hash = 0;
    int end = -1;
};

struct open_container {
    bool object = false;
    bool expect_name = false;
    size_t first_member = 0;  // its members are those from here to the end of `members`
};

constexpr uint64_t fnv_offset = 14695981039346656037ull;
constexpr uint64_t fnv_prime = 1099511628211ull;

uint64_t hash_of(const char* bytes, int length) {
    uint64_t h = fnv_offset;
    for (int i = 0; i < length; ++i)
        h = (h ^ static_cast<unsigned char>(bytes[i])) * fnv_prime;
    return h;
}

// An escaped name as Qt reads it (so "\u0061" is "a"). Qt refuses text that is not UTF-8,
// so the bytes of a name without escapes are its name already.
QByteArray unescaped(const QByteArray& body, const member& m) {
    const QByteArray quoted = body.mid(m.begin, m.name_end - m.begin + 1);
    return QJsonDocument::fromJson("[" + quoted + "]").array().at(0).toString().toUtf8();
}

bool same_name(const QByteArray& body, const member& a, const member& b) {
    if (a.escaped_name || b.escaped_name)
        return unescaped(body, a) == unescaped(body, b);
    const int length = a.name_end - a.begin;
    return length == b.name_end - b.begin &&
           std::memcmp(body.constData() + a.begin, body.constData() + b.begin, size_t(length)) == 0;
}

// The closing quote of the string value whose opening quote is at `quote` (or the end):
// the first quote after it not escaped by an odd run of backslashes.
int string_end(const char* data, int quote, int size) {
    int from = quote + 1;
    while (from < size) {
        const void* found = std::memchr(data + from, '"', size_t(size - from));
        if (!found)
            return size;
        const int at = int(static_cast<const char*>(found) - data);
        int backslashes = 0;
        while (at - backslashes - 1 > quote && data[at - backslashes - 1] == '\\')
            ++backslashes;
        if (backslashes % 2 == 0)
            return at;
        from = at + 1;
    }
    return size;
}

// Reads the name whose opening quote is at `quote`; returns its closing quote (or the end).
int read_name(const QByteArray& body, int quote, member& m) {
    const char* data = body.constData();
    m.begin = quote;
    m.name_end = string_end(data, quote, body.size());
    m.escaped_name = std::memchr(data + quote + 1, '\\', size_t(m.name_end - quote - 1)) != nullptr;
    if (m.escaped_name) {
        const QByteArray name = unescaped(body, m);
        m.name_hash = hash_of(name.constData(), name.size());
    } else {
        m.name_hash = hash_of(data + quote + 1, m.name_end - quote - 1);
    }
    return m.name_end;
}

// Adds to `removed` every member of a closing object that a later member of the same name
// replaces: from its name to the comma after its value. `names` is room to sort in.
void collect_replaced(const QByteArray& body, const member* first, size_t count,
                      std::vector<std::pair<uint64_t, size_t>>& names,
                      std::vector<std::pair<int, int>>& removed) {
    if (count < 2)
        return;
    names.clear();
    names.reserve(count);
    for (size_t i = 0; i < count; ++i)
        names.emplace_back(first[i].name_hash, i);
    std::sort(names.begin(), names.end());
    for (size_t i = 0; i + 1 < count; ++i) {
        // A member is replaced when a later one of its hash has its name.
        for (size_t j = i + 1; j < count && names[j].first == names[i].first; ++j) {
            const member& earlier = first[names[i].second];
            if (same_name(body, earlier, first[names[j].second])) {
                removed.emplace_back(earlier.begin, earlier.end + 1);
                break;
            }
        }
    }
}

// The characters that open, close or separate: everything else is skipped.
struct structure_table {
    bool marks[256] = {};
    constexpr structure_table() {
        for (const char c : {'"', '{', '}', '[', ']', ','})
            marks[static_cast<unsigned char>(c)] = true;
    }
};
constexpr structure_table structure;

}  // namespace

// Follows the structure only (strings, brackets, commas); Qt's parser judges the rest.
// Where the text stops making sense the reading stops: Qt fails there as well, and what
// came before is handled.
QByteArray without_replaced_values(const QByteArray& body) {
    const char* data = body.constData();
    const int size = body.size();
    std::vector<open_container> open;
    std::vector<member> members;
    std::vector<std::pair<uint64_t, size_t>> names;
    std::vector<std::pair<int, int>> removed;
    open.reserve(8);
    members.reserve(32);
    for (int i = 0; i < size; ++i) {
        const char c = data[i];
        if (!structure.marks[static_cast<unsigned char>(c)])
            continue;
        if (c == '"') {
            if (!open.empty() && open.back().expect_name) {
                member m;
                i = read_name(body, i, m);
                members.push_back(m);
                open.back().expect_name = false;
            } else {
                i = string_end(data, i, size);
            }
        } else if (c == '{' || c == '[') {
            open.push_back({c == '{', c == '{', members.size()});
        } else if (c == '}' || c == ']') {
            if (open.empty() || open.back().object != (c == '}'))
                break;
            const size_t first = open.back().first_member;
            if (open.back().object)
                collect_replaced(body, members.data() + first, members.size() - first, names, removed);
            members.resize(first);
            open.pop_back();
        } else if (!open.empty() && open.back().object) {  // a comma in an object
            if (open.back().expect_name || members.size() == open.back().first_member)
                break;
            members.back().end = i;
            open.back().expect_name = true;
        }
    }
    if (removed.empty())
        return body;

    // Ranges nest or lie apart; a range inside one already removed goes with it.
    std::sort(removed.begin(), removed.end());
    QByteArray out;
    out.reserve(size);
    int kept_from = 0;
    for (const auto& [begin, end] : removed) {
        if (begin < kept_from)
            continue;
        out.append(data + kept_from, begin - kept_from);
        kept_from = end;
    }
    out.append(data + kept_from, size - kept_from);
    return out;
}

}  // namespace json_body_detail

QJsonObject object_of_body(const QByteArray& body) {
    return QJsonDocument::fromJson(json_body_detail::without_replaced_values(body)).object();
}

}  // namespace model
