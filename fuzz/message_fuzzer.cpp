// Any of the 49 messages, picked by the first byte; the rest is a received
// serialised body, handed to corVane_unserializeBody_bounded. Checked on
// every input:
//  - the status is 0, 2 (envelope) or 4 (element), with no log line on
//    success and exactly one line for an overrun;
//  - when nothing was refused for lack of bytes, the message's own
//    unserializeBody callback (which trusts its buffer), given the same bytes
//    followed by zeros, returns the same status and, on success, the same
//    body bytes;
//  - an accepted body serialises with the message's serializeBody, the
//    result decodes (bounded) to the same payload field by field and
//    serialises again to the same bytes; both bodies are then released with
//    freeBody.
#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"

namespace {

using cvfuzz::fail;

uint32_t be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

struct Serialized {
    uint8_t* bytes = nullptr;
    uint32_t length = 0;
    ~Serialized() { std::free(bytes); }
};

void serialize(const CorVaneMessageInfo& m, void* body, Serialized& out) {
    if (cvfuzz::methodOf(m).serializeBody(CORVANE_BODY_REQUEST, body, &out.bytes, &out.length) != 0)
        fail("serializeBody refused", m.name);
    const uint8_t* payload = static_cast<const uint8_t*>(corVane_bodyPayload(body));
    if (out.length != 24 + corVane_record_serialize_lg(m.payload, payload))
        fail("serialised length", m.name);
    if (be32(out.bytes) != 0 || be32(out.bytes + 4) != 4 || be32(out.bytes + 8) != m.magic ||
        be32(out.bytes + 12) != 1 || be32(out.bytes + 16) != 4 || be32(out.bytes + 20) != m.envelope)
        fail("envelope", m.name);
}

void roundTrip(const CorVaneMessageInfo& m, void* body) {
    const CorVaneMethod& method = cvfuzz::methodOf(m);
    // The magic is taken from the wire as it comes and checked by the
    // receive function; the middleware serialises only bodies that passed.
    std::memcpy(body, &m.magic, 4);
    Serialized first;
    serialize(m, body, first);

    void* back = nullptr;
    uint32_t size = 0;
    if (corVane_unserializeBody_bounded(&m, CORVANE_BODY_REQUEST, first.bytes, first.length, &back,
                                        &size) != 0)
        fail("re-encoding refused", m.name);
    if (size != m.bodySize || static_cast<CorVaneMsgBody*>(back)->ref != 0)
        fail("re-decoded body size or ref", m.name);
    const std::string d =
        cvtest::diff(*m.payload, corVane_bodyPayload(body), corVane_bodyPayload(back));
    if (!d.empty()) fail("round trip changed a field:", d);

    Serialized second;
    serialize(m, back, second);
    if (second.length != first.length || std::memcmp(first.bytes, second.bytes, first.length) != 0)
        fail("second encoding differs", m.name);
    method.freeBody(CORVANE_BODY_REQUEST, back);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const CorVaneMessageInfo& m = *cvfuzz::messageAt(data[0] % cvfuzz::kMessageCount);
    const CorVaneMethod& method = cvfuzz::methodOf(m);
    const uint8_t* in = data + 1;
    const size_t length = size - 1;

    cvfuzz::resetLog();
    void* body = nullptr;
    uint32_t bodySize = 0;
    const uint32_t st =
        corVane_unserializeBody_bounded(&m, CORVANE_BODY_REQUEST, in, length, &body, &bodySize);
    const cvfuzz::LogCounter logged = cvfuzz::logCounter();
    if (st != 0 && st != 2 && st != 4) fail("unexpected status", m.name);
    if ((st == 0) != (body != nullptr)) fail("body and status disagree", m.name);
    if (st == 0 && (logged.lines != 0 || bodySize != m.bodySize)) fail("accepted body", m.name);
    if (st == 4 && logged.lines == 0) fail("refused without a log line", m.name);
    if (logged.overruns > 1 || (logged.overruns == 1 && logged.lines != 1))
        fail("an overrun gives exactly one line", m.name);

    // The bounded reader alone refuses a foreign magic; the callback takes it.
    const bool foreignMagic =
        st == 2 && length >= 12 &&
        (uint32_t{in[8]} << 24 | uint32_t{in[9]} << 16 | uint32_t{in[10]} << 8 | in[11]) != m.magic;
    if (logged.overruns == 0 && !foreignMagic) {
        const uint8_t* padded = cvfuzz::paddedCopy(in, length);
        void* other = nullptr;
        uint32_t otherSize = 0;
        cvfuzz::resetLog();
        const uint32_t st2 = method.unserializeBody(CORVANE_BODY_REQUEST, padded, &other, &otherSize);
        if (st2 != st) fail("unbounded status differs", m.name);
        if (cvfuzz::logCounter().lines != logged.lines) fail("unbounded log differs", m.name);
        if (st2 == 0) {
            if (otherSize != bodySize || std::memcmp(body, other, bodySize) != 0)
                fail("unbounded body differs", m.name);
            std::memcpy(other, &m.magic, 4);
            method.freeBody(CORVANE_BODY_REQUEST, other);
        }
    }

    if (st == 0) {
        roundTrip(m, body);
        method.freeBody(CORVANE_BODY_REQUEST, body);
    }
    return 0;
}
