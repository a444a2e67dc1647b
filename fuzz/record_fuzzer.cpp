// Any record type, picked by the first byte, decoded from the rest with the
// bounded reader. Checked on every input:
//  - the status is 0 or 4, the cursor stays within the input, and a refusal
//    is logged (one line exactly when it is an overrun), an acceptance not;
//  - wherever the bounded reader accepts or refuses an element that lies
//    within the input, the unbounded reader, given the same bytes followed
//    by zeros, returns the same status, leaves the cursor at the same offset,
//    logs as many lines and leaves the same record bytes;
//  - an accepted record serialises (length as announced), decodes back to
//    the same field values, and serialises again to the same bytes.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_support.h"

namespace {

using cvfuzz::fail;

// Records are zeroed before each decode so that the differential can compare
// all their bytes; the buffers are kept per record type.
struct Slot {
    const CorVaneSchema* schema;
    std::unique_ptr<uint8_t[]> bounded, unbounded, back;
};

Slot& slotFor(uint8_t selector) {
    static std::vector<Slot> slots = [] {
        std::vector<Slot> v;
        for (uint32_t i = 0; i < corVane_recordCount(); ++i) {
            const CorVaneSchema* s = corVane_recordSchemaAt(i);
            v.push_back({s, std::make_unique<uint8_t[]>(s->size),
                         std::make_unique<uint8_t[]>(s->size), std::make_unique<uint8_t[]>(s->size)});
        }
        return v;
    }();
    return slots[selector % slots.size()];
}

// Serialises into an exactly sized, zeroed buffer and checks the length.
std::vector<uint8_t> serialize(const CorVaneSchema& s, const void* rec) {
    const uint32_t length = corVane_record_serialize_lg(&s, rec);
    std::vector<uint8_t> out(length);
    uint8_t* cursor = out.data();
    if (corVane_record_serialize(&s, rec, &cursor) != 0) fail("serialize refused", s.name);
    if (cursor != out.data() + length) fail("serialize length", s.name);
    return out;
}

void roundTrip(Slot& slot) {
    const CorVaneSchema& s = *slot.schema;
    const std::vector<uint8_t> wire = serialize(s, slot.bounded.get());
    // A heap copy of exactly the encoding, so that AddressSanitizer sees any
    // read past it.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[wire.size() ? wire.size() : 1]);
    std::memcpy(exact.get(), wire.data(), wire.size());
    std::memset(slot.back.get(), 0, s.size);
    const uint8_t* cursor = exact.get();
    if (corVane_record_unserialize_bounded(&s, slot.back.get(), &cursor,
                                           exact.get() + wire.size()) != 0)
        fail("re-encoding refused", s.name);
    if (cursor != exact.get() + wire.size()) fail("re-encoding not read whole", s.name);
    const std::string d = cvtest::diff(s, slot.bounded.get(), slot.back.get());
    if (!d.empty()) fail("round trip changed a field:", d);
    if (serialize(s, slot.back.get()) != wire) fail("second encoding differs", s.name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    Slot& slot = slotFor(data[0]);
    const CorVaneSchema& s = *slot.schema;
    const uint8_t* in = data + 1;
    const size_t length = size - 1;

    std::memset(slot.bounded.get(), 0, s.size);
    cvfuzz::resetLog();
    const uint8_t* cursor = in;
    const uint32_t st = corVane_record_unserialize_bounded(&s, slot.bounded.get(), &cursor, in + length);
    const cvfuzz::LogCounter logged = cvfuzz::logCounter();
    if (cursor < in || cursor > in + length) fail("cursor outside the input", s.name);
    if (st == 0 && logged.lines != 0) fail("accepted with a log line", s.name);
    if (st == 4 && logged.lines == 0) fail("refused without a log line", s.name);
    if (st != 0 && st != 4) fail("unexpected status", s.name);
    if (logged.overruns > 1 || (logged.overruns == 1 && logged.lines != 1))
        fail("an overrun gives exactly one line", s.name);
    if (st == 0 && cursor == in) fail("accepted without reading", s.name);  // no record is empty

    if (logged.overruns == 0) {
        // Nothing was refused for lack of bytes: every element the bounded
        // reader looked at lies within the input.
        const uint8_t* padded = cvfuzz::paddedCopy(in, length);
        std::memset(slot.unbounded.get(), 0, s.size);
        cvfuzz::resetLog();
        const uint8_t* cur2 = padded;
        const uint32_t st2 = corVane_record_unserialize(&s, slot.unbounded.get(), &cur2);
        if (st2 != st) fail("unbounded status differs", s.name);
        if (cur2 - padded != cursor - in) fail("unbounded cursor differs", s.name);
        if (cvfuzz::logCounter().lines != logged.lines) fail("unbounded log differs", s.name);
        if (std::memcmp(slot.bounded.get(), slot.unbounded.get(), s.size) != 0)
            fail("unbounded record bytes differ", s.name);
    }

    if (st == 0) roundTrip(slot);
    return 0;
}
