#include "inspect.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cvi {
namespace {

constexpr size_t kEnvelopeBytes = 24;  // the tag-0 and tag-1 u32 elements

const CorVaneMethod& methodOf(const CorVaneMessageInfo& m) {
    const CorVaneIntfDesc* desc =
        m.intf == CORVANE_INTF_CMD
            ? reinterpret_cast<const CorVaneIntfDesc*>(&corVane_base.cmd)
            : reinterpret_cast<const CorVaneIntfDesc*>(&corVane_base.ntfy);
    return corVane_intfMethods(desc)[m.index];
}

template <class F>
void forEachMessage(F&& f) {
    for (const CorVaneMessageInfo* m : allMessages()) f(*m);
}

}  // namespace

std::vector<const CorVaneMessageInfo*> allMessages() {
    std::vector<const CorVaneMessageInfo*> out;
    for (uint32_t intf : {CORVANE_INTF_CMD, CORVANE_INTF_NTFY})
        for (uint32_t i = 0; const CorVaneMessageInfo* m = corVane_messageInfo(intf, i); ++i)
            out.push_back(m);
    return out;
}

std::vector<const CorVaneMessageInfo*> messagesWithMagic(uint32_t magic) {
    std::vector<const CorVaneMessageInfo*> out;
    for (const CorVaneMessageInfo* m : allMessages())
        if (m->magic == magic) out.push_back(m);
    return out;
}

std::optional<uint32_t> bodyMagic(std::span<const uint8_t> bytes) {
    if (bytes.size() < 12 || loadBe32(bytes.data()) != 0 || loadBe32(bytes.data() + 4) != 4)
        return std::nullopt;
    return loadBe32(bytes.data() + 8);
}

const char* interfaceKind(const CorVaneMessageInfo& m) {
    return m.intf == CORVANE_INTF_CMD ? "command" : "notification";
}

void BodyDeleter::operator()(void* body) const {
    if (body) methodOf(*msg).freeBody(CORVANE_BODY_REQUEST, body);
}

const CorVaneMessageInfo* findMessage(const std::string& name) {
    return corVane_messageByName(name.c_str());
}

const CorVaneSchema* findSchema(const std::string& name) {
    if (const CorVaneSchema* s = corVane_recordSchema(name.c_str())) return s;
    const CorVaneSchema* found = nullptr;
    forEachMessage([&](const CorVaneMessageInfo& m) {
        if (!found && name == m.payload->name) found = m.payload;  // the scalar payloads
    });
    if (found) return found;
    const CorVaneMessageInfo* m = findMessage(name);
    return m ? m->payload : nullptr;
}

Decoded decodeBody(const CorVaneMessageInfo& m, std::span<const uint8_t> bytes) {
    static const uint8_t kNothing[1] = {0};
    const uint8_t* buffer = bytes.empty() ? kNothing : bytes.data();
    Decoded d;
    takeLog();
    void* body = nullptr;
    uint32_t size = 0;
    d.status = corVane_unserializeBody_bounded(&m, CORVANE_BODY_REQUEST, buffer, bytes.size(),
                                               &body, &size);
    d.log = takeLog();
    if (d.status == CORVANE_OK) d.body = Body(body, BodyDeleter{&m});
    d.walk = walkBody(m, bytes);

    // The body decoder does not say where it stopped; its payload decoder
    // leaves the cursor on the refused element.
    const bool envelopeRead = !d.walk.stop || d.walk.stop->offset >= kEnvelopeBytes;
    if (d.status != CORVANE_OK && envelopeRead && bytes.size() >= kEnvelopeBytes) {
        std::vector<uint64_t> scratch((m.payload->size + 7) / 8 + 1);
        const uint8_t* cursor = buffer + kEnvelopeBytes;
        corVane_record_unserialize_bounded(m.payload, scratch.data(), &cursor,
                                           buffer + bytes.size());
        d.libraryStop = static_cast<size_t>(cursor - buffer);
        takeLog();  // the same lines again, under the record's own name
    }
    return d;
}

Encoded encodeBody(const CorVaneMessageInfo& m, const Json& payload) {
    Encoded e;
    void* body = std::calloc(1, m.bodySize);
    if (!body) {
        e.errors.push_back("out of memory");
        return e;
    }
    std::memcpy(body, &m.magic, sizeof m.magic);
    e.errors = recordFromJson(*m.payload, payload,
                              static_cast<uint8_t*>(body) + CORVANE_BODY_PAYLOAD_OFFSET);
    const CorVaneMethod& method = methodOf(m);
    if (e.errors.empty()) {
        uint8_t* out = nullptr;
        uint32_t length = 0;
        takeLog();
        const uint32_t st = method.serializeBody(CORVANE_BODY_REQUEST, body, &out, &length);
        e.log = takeLog();
        if (st != CORVANE_OK) {
            e.errors.push_back(std::string(method.name) + " serializeBody refused the body (status " +
                               std::to_string(st) + ")");
        } else {
            e.bytes.assign(out, out + length);
            std::free(out);
        }
    }
    method.freeBody(CORVANE_BODY_REQUEST, body);
    return e;
}

void printMessageList(std::ostream& os) {
    size_t nameWidth = 4;
    forEachMessage(
        [&](const CorVaneMessageInfo& m) { nameWidth = std::max(nameWidth, std::strlen(m.name)); });
    char line[256];
    std::snprintf(line, sizeof line, "%-5s %5s  %-*s  %-10s  %-10s  %s\n", "intf", "index",
                  static_cast<int>(nameWidth), "name", "magic", "key", "payload");
    os << line;
    forEachMessage([&](const CorVaneMessageInfo& m) {
        std::snprintf(line, sizeof line, "%-5s %5u  %-*s  0x%08x  0x%08x  %s%s\n",
                      m.intf == CORVANE_INTF_CMD ? "cmd" : "ntfy", m.index,
                      static_cast<int>(nameWidth), m.name, m.magic, m.key, m.payload->name,
                      m.flags & CORVANE_MSG_RECORD_PAYLOAD ? "" : " (scalars)");
        os << line;
    });
}

}  // namespace cvi
