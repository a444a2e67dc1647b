// The message-management tables: one per interface of the library, numbered
// here, filled in by the library; each row names a method and its body
// callbacks.

#include "internal.h"

#include <cstdlib>
#include <cstring>

namespace quibdbus {

const Table *tableNamed(const std::string &name)
{
    for (const auto &[num, t] : st().tables)
        if (t.name == name)
            return &t;
    return nullptr;
}

uint16_t numOf(const Table *t)
{
    for (const auto &[num, table] : st().tables)
        if (&table == t)
            return num;
    return QUIB_NUM_NONE;
}

Row rowOf(uint16_t num, uint16_t method)
{
    Row row;
    auto it = st().tables.find(num);
    if (it == st().tables.end() || method >= it->second.count)
        return row;
    const QuibMsgMngtRow &r = quib_tableRows(it->second.words)[method];
    row.table = &it->second;
    row.name = r.name;
    row.freeBody = reinterpret_cast<CorVaneFreeBodyFn>(r.freeBody);
    row.serialize = reinterpret_cast<CorVaneSerializeBodyFn>(r.serializeBody);
    return row;
}

void releaseBody(CorVaneFreeBodyFn freeBody, void *body)
{
    if (body == nullptr)
        return;
    if (freeBody != nullptr)
        freeBody(CORVANE_BODY_REQUEST, body);
    else
        std::free(body);
}

uint32_t checkDesc(const CorVaneIntfDesc *desc, uint16_t method)
{
    if (desc == nullptr || method >= desc->count || st().tables.count(desc->num) == 0)
        return QUIB_DBUS_E_NO_TABLE;
    return 0;
}

}  // namespace quibdbus

using namespace quibdbus;

extern "C" {

uint16_t quibCore_getBase_msgMngt(const char *name, QuibMsgMngtTable **table, uint16_t count)
{
    return guarded<uint16_t>(QUIB_NUM_NONE, [&]() -> uint16_t {
        State &s = st();
        if (table == nullptr)
            return QUIB_NUM_NONE;
        *table = nullptr;
        const std::string escaped = escape(name != nullptr ? name : "");
        if (escaped.empty() || escaped.size() > kMaxBusName - std::strlen(kIntfPrefix) ||
            s.tables.size() >= QUIB_NUM_NONE - 1)
            return QUIB_NUM_NONE;
        auto *words = static_cast<QuibMsgMngtTable *>(
            std::calloc(1, sizeof(QuibMsgMngtTable) + size_t{count} * sizeof(QuibMsgMngtRow)));
        if (words == nullptr)
            return QUIB_NUM_NONE;
        uint16_t num = s.nextNum;
        while (s.tables.count(num) != 0)
            num = num >= QUIB_NUM_NONE - 1 ? 1 : num + 1;
        s.nextNum = num >= QUIB_NUM_NONE - 1 ? 1 : num + 1;
        s.tables[num] = Table{words, name, kPathPrefix + escaped, kIntfPrefix + escaped, count};
        *table = words;
        return num;
    });
}

uint32_t quibCore_putBase_msgMngt(uint16_t num, uint32_t)
{
    State &s = st();
    auto it = s.tables.find(num);
    if (it == s.tables.end())
        return QUIB_DBUS_E_NO_TABLE;
    std::free(it->second.words);
    s.tables.erase(it);
    return 0;
}

}  // extern "C"
