// The libFuzzer targets and their seed generator, built from this one file.
// corvane_fuzz_record (CVFUZZ_RECORD) decodes the input with the bounded
// reader of the record type its first byte picks; corvane_fuzz_message
// (CVFUZZ_MESSAGE) hands it to corVane_unserializeBody_bounded as a body of
// the message its first byte picks. Either fails on a status other than 0 or
// 4 (a body: 0, 2 or 4), a cursor outside the input, a refusal without a log
// line, an acceptance with one, an overrun with more than one; on the classic
// reader disagreeing on the same bytes followed by zeros (but for a body's
// foreign magic, which only the bounded reader refuses); and on an accepted
// input whose encoding does not have its announced length or does not decode
// back to a record (a body) that encodes to the same bytes.
//
// corvane_fuzz_seeds DIR (CVFUZZ_SEEDS) writes DIR/record/<Record>-<fill> and
// DIR/message/<Method>-<fill>: the selector byte, then a valid encoding of an
// empty, a random and a full instance, each checked as the targets would.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "corvane/base.h"
#include "corvane/messages.h"
#include "support/records.h"

namespace {

constexpr uint32_t kMessages = CORVANE_CMD_COUNT + CORVANE_NTFY_COUNT;
using Bytes = std::vector<uint8_t>;

const CorVaneMessageInfo& messageAt(uint32_t n) {
    return *(n < CORVANE_CMD_COUNT ? corVane_messageInfo(CORVANE_INTF_CMD, n)
                                   : corVane_messageInfo(CORVANE_INTF_NTFY, n - CORVANE_CMD_COUNT));
}

const CorVaneMethod& methodOf(const CorVaneMessageInfo& m) {
    return (m.intf == CORVANE_INTF_CMD ? corVane_base.cmd.methods : corVane_base.ntfy.methods)[m.index];
}

// Lines the library logged since the last reset, and those that report a
// read that would have run past the end of the buffer.
struct LogCount {
    uint32_t lines, overruns;
} gLog;

[[noreturn]] void fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "corvane fuzz check failed: %s %s\n", what, detail.c_str());
    std::abort();
}

// `size` bytes followed by zeros, for the unbounded readers, which trust
// their buffer to hold the whole encoding; the zeros stop any walk that the
// bounded reader accepted long before they are reached.
const uint8_t* padded(const uint8_t* data, size_t size) {
    static Bytes buffer;
    buffer.assign(size + 64 * 1024, 0);
    if (size) std::memcpy(buffer.data(), data, size);
    return buffer.data();
}

Bytes serialize(const CorVaneSchema& s, const void* rec) {
    Bytes out(corVane_record_serialize_lg(&s, rec));
    uint8_t* cursor = out.data();
    if (corVane_record_serialize(&s, rec, &cursor) != 0) fail("serialize refused", s.name);
    if (cursor != out.data() + out.size()) fail("serialize length", s.name);
    return out;
}

uint32_t be32(const uint8_t* p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }

// The serialised body, checked against its envelope and announced length.
Bytes serializeBody(const CorVaneMessageInfo& m, void* body) {
    uint8_t* bytes = nullptr;
    uint32_t length = 0;
    if (methodOf(m).serializeBody(CORVANE_BODY_REQUEST, body, &bytes, &length) != 0) fail("serializeBody", m.name);
    Bytes out(bytes, bytes + length);
    std::free(bytes);
    const uint32_t head[] = {0, 4, m.magic, 1, 4, m.envelope};
    for (int i = 0; i < 6; ++i)
        if (out.size() < 24 || be32(&out[4 * i]) != head[i]) fail("envelope", m.name);
    if (out.size() != 24 + corVane_record_serialize_lg(m.payload, corVane_bodyPayload(body))) fail("length", m.name);
    return out;
}

void checkLines(uint32_t st, const LogCount& logged, const char* name) {
    if (st == 0 && logged.lines != 0) fail("accepted with a log line", name);
    if (st == 4 && logged.lines == 0) fail("refused without a log line", name);
    if (logged.overruns > 1 || (logged.overruns == 1 && logged.lines != 1)) fail("an overrun gives one line", name);
}

[[maybe_unused]] void fuzzRecord(const uint8_t* in, size_t length, uint8_t selector) {
    const CorVaneSchema& s = *corVane_recordSchemaAt(selector % corVane_recordCount());
    std::vector<uint8_t> rec(s.size), other(s.size);
    gLog = {0, 0};
    const uint8_t* cursor = in;
    const uint32_t st = corVane_record_unserialize_bounded(&s, rec.data(), &cursor, in + length);
    const LogCount logged = gLog;
    if (st != 0 && st != 4) fail("unexpected status", s.name);
    if (cursor < in || cursor > in + length) fail("cursor outside the input", s.name);
    if (st == 0 && cursor == in) fail("accepted without reading", s.name);  // no record is empty
    checkLines(st, logged, s.name);
    if (logged.overruns == 0) {
        const uint8_t* p = padded(in, length);
        const uint8_t* c2 = p;
        gLog = {0, 0};
        if (corVane_record_unserialize(&s, other.data(), &c2) != st) fail("unbounded status differs", s.name);
        if (c2 - p != cursor - in || gLog.lines != logged.lines) fail("unbounded cursor or lines differ", s.name);
        if (rec != other) fail("unbounded record bytes differ", s.name);
    }
    if (st != 0) return;
    const Bytes wire = serialize(s, rec.data());
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[wire.size()]);  // ASan sees any read past it
    std::memcpy(exact.get(), wire.data(), wire.size());
    std::fill(other.begin(), other.end(), 0);
    cursor = exact.get();
    if (corVane_record_unserialize_bounded(&s, other.data(), &cursor, exact.get() + wire.size()) != 0 ||
        cursor != exact.get() + wire.size())
        fail("re-encoding not read whole", s.name);
    if (serialize(s, other.data()) != wire) fail("round trip changed", s.name);
}

[[maybe_unused]] void fuzzMessage(const uint8_t* in, size_t length, uint8_t selector) {
    const CorVaneMessageInfo& m = messageAt(selector % kMessages);
    const CorVaneMethod& method = methodOf(m);
    gLog = {0, 0};
    void* body = nullptr;
    uint32_t size = 0;
    const uint32_t st = corVane_unserializeBody_bounded(&m, CORVANE_BODY_REQUEST, in, length, &body, &size);
    const LogCount logged = gLog;
    if (st != 0 && st != 2 && st != 4) fail("unexpected status", m.name);
    if ((st == 0) != (body != nullptr) || (st == 0 && size != m.bodySize)) fail("body and status", m.name);
    checkLines(st, logged, m.name);
    const bool foreignMagic = st == 2 && length >= 12 && be32(in + 8) != m.magic;
    if (logged.overruns == 0 && !foreignMagic) {
        void* other = nullptr;
        uint32_t otherSize = 0;
        gLog = {0, 0};
        if (method.unserializeBody(CORVANE_BODY_REQUEST, padded(in, length), &other, &otherSize) != st ||
            gLog.lines != logged.lines)
            fail("unbounded status or lines differ", m.name);
        if (st == 0 && (otherSize != size || std::memcmp(body, other, size) != 0)) fail("unbounded body", m.name);
        if (other) {
            std::memcpy(other, &m.magic, 4);
            method.freeBody(CORVANE_BODY_REQUEST, other);
        }
    }
    if (st != 0) return;
    // The magic comes from the wire as it is; the middleware serialises only
    // bodies whose magic passed the receive function.
    std::memcpy(body, &m.magic, 4);
    const Bytes first = serializeBody(m, body);
    void* back = nullptr;
    if (corVane_unserializeBody_bounded(&m, CORVANE_BODY_REQUEST, first.data(), static_cast<uint32_t>(first.size()),
                                        &back, &size) != 0)
        fail("re-encoding refused", m.name);
    if (static_cast<CorVaneMsgBody*>(back)->ref != 0) fail("re-decoded ref", m.name);
    if (serializeBody(m, back) != first) fail("round trip changed", m.name);
    method.freeBody(CORVANE_BODY_REQUEST, back);
    method.freeBody(CORVANE_BODY_REQUEST, body);
}

// The library logs through syslog(): only counted here, with a note of the
// lines that report an overrun (the library passes its formatted line as
// the one "%s" argument).
void countLine(const char* fmt, va_list ap) {
    ++gLog.lines;
    if (std::strcmp(fmt, "%s") != 0) return;
    const char* text = va_arg(ap, const char*);
    if (text && std::strstr(text, "the end of the buffer")) ++gLog.overruns;
}

}  // namespace

extern "C" {
void syslog(int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    countLine(fmt, ap);
    va_end(ap);
}
void __syslog_chk(int, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    countLine(fmt, ap);
    va_end(ap);
}
}  // extern "C"

#if defined(CVFUZZ_RECORD) || defined(CVFUZZ_MESSAGE)
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
#ifdef CVFUZZ_RECORD
    fuzzRecord(data + 1, size - 1, data[0]);
#else
    fuzzMessage(data + 1, size - 1, data[0]);
#endif
    return 0;
}
#else
namespace {

// Empty, random (seeded by the index) and full instances.
void fill(const CorVaneSchema& s, void* rec, int how, uint32_t seed) {
    std::mt19937 rng(seed);
    if (how == 1) cvtest::fillRandom(s, rec, rng);
    if (how == 2) cvtest::fillFull(s, rec, seed, cvtest::Counts::kCapacity);
}

void write(const std::filesystem::path& file, uint32_t selector, const Bytes& bytes) {
    std::ofstream out(file, std::ios::binary);
    out.put(static_cast<char>(selector));
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) fail("cannot write", file.string());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <output directory>\n", argv[0]);
        return 2;
    }
    const std::filesystem::path root(argv[1]);
    for (const char* dir : {"record", "message"}) std::filesystem::create_directories(root / dir);
    const char* fills[] = {"empty", "random", "full"};
    for (int how = 0; how < 3; ++how) {
        for (uint32_t i = 0; i < corVane_recordCount(); ++i) {
            const CorVaneSchema& s = *corVane_recordSchemaAt(i);
            std::vector<uint8_t> rec(s.size);
            fill(s, rec.data(), how, i + 1);
            const Bytes wire = serialize(s, rec.data());
            fuzzRecord(wire.data(), wire.size(), static_cast<uint8_t>(i));  // checks it as the target would
            write(root / "record" / (std::string(s.name) + "-" + fills[how]), i, wire);
        }
        for (uint32_t n = 0; n < kMessages; ++n) {
            const CorVaneMessageInfo& m = messageAt(n);
            void* body = std::calloc(1, m.bodySize);
            std::memcpy(body, &m.magic, 4);
            fill(*m.payload, corVane_bodyPayload(body), how, n + 1);
            const Bytes wire = serializeBody(m, body);
            methodOf(m).freeBody(CORVANE_BODY_REQUEST, body);
            fuzzMessage(wire.data(), wire.size(), static_cast<uint8_t>(n));
            write(root / "message" / (std::string(m.name) + "-" + fills[how]), n, wire);
        }
    }
    std::printf("%u record seeds, %u message seeds in %s\n", 3 * corVane_recordCount(), 3 * kMessages, argv[1]);
    return 0;
}
#endif
