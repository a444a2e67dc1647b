// Table-driven tests over every record type: each test runs once per schema
// in the library's registry and checks the typed operations users call.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/typed_ops.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

bool isWritten(uint8_t kind) { return kind == CORVANE_FIELD_U32 || kind == CORVANE_FIELD_TEXT; }

std::string fn(const CorVaneSchema& s) { return std::string("corVane_") + s.name + "_unserialize"; }

// The "Error Before" lines a failure at element e gives, innermost record
// first: each enclosing record reports its fields after the failing one.
std::vector<std::string> errorBeforeLines(const Element& e, const uint8_t* wire) {
    std::vector<std::string> out;
    for (auto it = e.levels.rbegin(); it != e.levels.rend(); ++it) {
        const CorVaneSchema& s = *it->schema;
        const bool all = s.flags & CORVANE_SCHEMA_ERROR_BEFORE_RESERVED;
        for (uint32_t j = it->fieldIndex + 1; j < s.fieldCount; ++j) {
            if (all || isWritten(s.fields[j].kind))
                out.push_back(fn(s) + ": pBody(" + ptr(wire + it->start) + "): Type(" +
                              std::to_string(j + 3) + ") -> Error Before\n");
        }
    }
    return out;
}

// After a failure at element `failed`: the fields of the elements before it
// hold the source's values, the others still hold what the destination held.
void expectReadUpTo(const CorVaneSchema& s, const Record& src, const Record& before,
                    const Record& after, const std::vector<Element>& els, size_t failed) {
    for (size_t k = 0; k < els.size(); ++k) {
        const Element& e = els[k];
        const uint8_t* got = after.data() + e.recordOffset;
        if (k < failed) {
            const uint8_t* want = src.data() + e.recordOffset;
            if (e.field->kind == CORVANE_FIELD_TEXT)
                ASSERT_STREQ(reinterpret_cast<const char*>(got), reinterpret_cast<const char*>(want))
                    << s.name << " " << e.path;
            else
                ASSERT_EQ(0, std::memcmp(got, want, 4)) << s.name << " " << e.path;
        } else {
            const size_t size = e.field->kind == CORVANE_FIELD_TEXT ? e.field->capacity : 4u;
            ASSERT_EQ(0, std::memcmp(got, before.data() + e.recordOffset, size))
                << s.name << " " << e.path << " was changed after a failure at " << els[failed].path;
        }
    }
}

// Entries of every counted array beyond min(count, capacity) are as in `before`.
void expectUnusedEntriesUntouched(const CorVaneSchema& s, const uint8_t* before,
                                  const uint8_t* after, const uint8_t* counts,
                                  const std::string& path = "") {
    for (uint32_t i = 0; i < s.fieldCount; ++i) {
        const CorVaneField& f = s.fields[i];
        if (f.kind == CORVANE_FIELD_RECORD) {
            expectUnusedEntriesUntouched(*f.record, before + f.offset, after + f.offset,
                                         counts + f.offset, path + f.name + ".");
        } else if (f.kind == CORVANE_FIELD_ARRAY || f.kind == CORVANE_FIELD_FIXED_ARRAY) {
            uint32_t used = f.capacity;
            if (f.kind == CORVANE_FIELD_ARRAY) {
                uint32_t count;
                std::memcpy(&count, counts + s.fields[i - 1].offset, 4);
                used = count < f.capacity ? count : f.capacity;
            }
            const size_t es = f.record->size;
            for (uint32_t j = 0; j < f.capacity; ++j) {
                const size_t at = f.offset + j * es;
                if (j >= used)
                    ASSERT_EQ(0, std::memcmp(before + at, after + at, es))
                        << path << f.name << "[" << j << "] was touched";
                else
                    expectUnusedEntriesUntouched(*f.record, before + at, after + at, counts + at,
                                                 path + f.name + "[" + std::to_string(j) + "].");
            }
        }
    }
}

class AllRecords : public testing::TestWithParam<const CorVaneSchema*> {
protected:
    void SetUp() override { clearLog(); }
    const CorVaneSchema& s() const { return *GetParam(); }
    const TypedOps& ops() const { return typedOps(GetParam()); }
};

TEST(RecordRegistry, ListsEveryRecordOnceUnderItsOwnName) {
    const auto records = allRecords();
    ASSERT_EQ(66u, records.size());
    std::set<std::string> names;
    for (const CorVaneSchema* s : records) {
        EXPECT_TRUE(names.insert(s->name).second) << s->name;
        EXPECT_EQ(s, corVane_recordSchema(s->name));
    }
    EXPECT_EQ(nullptr, corVane_recordSchema("NoSuchRecord"));
    EXPECT_EQ(nullptr, corVane_recordSchemaAt(66));
    ASSERT_EQ(records.size(), typedOps().size());
    for (size_t i = 0; i < records.size(); ++i) EXPECT_STREQ(records[i]->name, typedOps()[i].name);
}

// A full instance survives copy and serialise -> unserialise (unbounded and
// bounded), with counts at 0, at the capacity and above it.
TEST_P(AllRecords, FullInstanceRoundTrips) {
    for (Counts counts : {Counts::kZero, Counts::kCapacity, Counts::kAbove}) {
        SCOPED_TRACE(static_cast<int>(counts));
        Record src(&s()), sentinel(&s());
        fillFull(s(), src.data(), 1, counts);
        fillFull(s(), sentinel.data(), 2, Counts::kCapacity);

        Record copy(sentinel);
        ASSERT_EQ(0u, ops().copy(copy.data(), src.data()));
        EXPECT_EQ("", diff(s(), src.data(), copy.data()));
        expectUnusedEntriesUntouched(s(), sentinel.data(), copy.data(), src.data());

        const uint32_t length = ops().length(src.data());
        ASSERT_EQ(encodedLength(s(), src.data()), length);
        Bytes wire(length + 16, 0xA5);
        uint8_t* out = wire.data();
        ASSERT_EQ(0u, ops().serialize(src.data(), &out));
        ASSERT_EQ(wire.data() + length, out);
        // Each element where it belongs, with its tag and length; nothing
        // written past the end, and the padding bytes left as they were.
        for (const Element& e : elements(s(), src.data())) {
            const uint8_t* el = wire.data() + e.wireOffset;
            ASSERT_EQ(e.tag, be32(el)) << e.path;
            ASSERT_EQ(e.wireSize - 8, be32(el + 4)) << e.path;
            if (e.field->kind == CORVANE_FIELD_TEXT) {
                const size_t n = std::strlen(reinterpret_cast<const char*>(el + 8));
                for (size_t p = 8 + n + 1; p < e.wireSize; ++p)
                    ASSERT_EQ(0xA5, el[p]) << e.path << " padding byte " << p;
            }
        }
        for (size_t p = length; p < wire.size(); ++p) ASSERT_EQ(0xA5, wire[p]);
        wire.resize(length);

        Record back(sentinel);
        const uint8_t* in = wire.data();
        ASSERT_EQ(0u, ops().unserialize(back.data(), &in));
        EXPECT_EQ(wire.data() + length, in);
        EXPECT_EQ("", diff(s(), src.data(), back.data()));
        expectUnusedEntriesUntouched(s(), sentinel.data(), back.data(), src.data());

        ExactBuffer exact(wire);
        Record bounded(sentinel);
        in = exact.data();
        ASSERT_EQ(0u, ops().unserializeBounded(bounded.data(), &in, exact.data() + exact.size()));
        EXPECT_EQ(exact.data() + length, in);
        EXPECT_EQ(0, std::memcmp(back.data(), bounded.data(), s().size));
    }
    EXPECT_TRUE(logLines().empty());
}

// Length, serialise and the element rules agree on random instances too.
TEST_P(AllRecords, RandomInstancesRoundTrip) {
    std::mt19937 rng(12345);
    for (int round = 0; round < 12; ++round) {
        Record src(&s()), back(&s());
        fillRandom(s(), src.data(), rng);
        const Bytes wire = encode(s(), src.data());
        ASSERT_EQ(encodedLength(s(), src.data()), wire.size());
        ExactBuffer exact(wire);
        const uint8_t* in = exact.data();
        ASSERT_EQ(0u, ops().unserializeBounded(back.data(), &in, exact.data() + exact.size()));
        ASSERT_EQ(exact.data() + exact.size(), in);
        ASSERT_EQ("", diff(s(), src.data(), back.data()));
    }
}

// A wrong tag at any element stops the read there: 4, the cursor on that
// element, one Tl line, the "Error Before" lines of every enclosing record,
// the fields before it read and the others untouched.
TEST_P(AllRecords, WrongTagAtEveryElement) {
    Record src(&s()), sentinel(&s());
    fillFull(s(), src.data(), 3, Counts::kCapacity);
    fillFull(s(), sentinel.data(), 4, Counts::kCapacity);
    const Bytes wire = encode(s(), src.data());
    const auto els = elements(s(), src.data());
    for (size_t k = 0; k < els.size(); ++k) {
        const Element& e = els[k];
        Bytes bad = wire;
        const uint32_t found = e.tag + 0x100;
        putBe32(bad.data() + e.wireOffset, found);
        for (bool bounded : {false, true}) {
            ExactBuffer exact(bad);
            Record dst(sentinel);
            clearLog();
            const uint8_t* in = exact.data();
            const uint32_t st = bounded
                ? ops().unserializeBounded(dst.data(), &in, exact.data() + exact.size())
                : ops().unserialize(dst.data(), &in);
            ASSERT_EQ(4u, st) << e.path;
            ASSERT_EQ(exact.data() + e.wireOffset, in) << e.path;
            std::vector<std::string> want = {
                fn(*e.levels.back().schema) + ": pBody(" + ptr(exact.data() + e.levels.back().start) +
                "): Tl(" + std::to_string(found) + "-" + std::to_string(e.wireSize - 8) +
                ") expectded(" + std::to_string(e.tag) + ")\n"};
            for (auto& l : errorBeforeLines(e, exact.data())) want.push_back(l);
            ASSERT_EQ(want, logTextsWithoutLine()) << e.path;
            for (const auto& l : logLines()) ASSERT_EQ(3, l.priority);
            expectReadUpTo(s(), src, sentinel, dst, els, k);
        }
    }
}

// Every text field: capacity - 1 characters are accepted on receipt (the
// full instance holds them), capacity characters are refused with the
// lgChainIn line; and a copy cuts an unterminated source to capacity - 1.
TEST_P(AllRecords, TextCapacities) {
    Record src(&s()), sentinel(&s());
    fillFull(s(), src.data(), 5, Counts::kCapacity);
    fillFull(s(), sentinel.data(), 6, Counts::kCapacity);
    const Bytes wire = encode(s(), src.data());
    const auto els = elements(s(), src.data());
    for (size_t k = 0; k < els.size(); ++k) {
        const Element& e = els[k];
        if (e.field->kind != CORVANE_FIELD_TEXT) continue;
        const uint16_t cap = e.field->capacity;
        const Bytes bad = replaceElement(wire, e, stringElement(e.tag, std::string(cap, 'Z')));
        ExactBuffer exact(bad);
        Record dst(sentinel);
        clearLog();
        const uint8_t* in = exact.data();
        ASSERT_EQ(4u, ops().unserializeBounded(dst.data(), &in, exact.data() + exact.size()));
        ASSERT_EQ(exact.data() + e.wireOffset, in) << e.path;
        std::vector<std::string> want = {fn(*e.levels.back().schema) + ": lgChainIn(" +
                                         std::to_string(cap + 1) + ") lgMaxChainOut(" +
                                         std::to_string(cap) + ")\n"};
        for (auto& l : errorBeforeLines(e, exact.data())) want.push_back(l);
        ASSERT_EQ(want, logTextsWithoutLine()) << e.path;
        expectReadUpTo(s(), src, sentinel, dst, els, k);
    }
    // Copy of an unterminated text (the record's own text fields).
    for (uint32_t i = 0; i < s().fieldCount; ++i) {
        const CorVaneField& f = s().fields[i];
        if (f.kind != CORVANE_FIELD_TEXT) continue;
        Record full(src), dst(sentinel);
        std::memset(full.data() + f.offset, 'x', f.capacity);
        ASSERT_EQ(0u, ops().copy(dst.data(), full.data()));
        EXPECT_EQ(std::string(f.capacity - 1u, 'x'),
                  reinterpret_cast<const char*>(dst.data() + f.offset))
            << f.name;
    }
}

// A scalar element with a length word above 4 is taken and skipped whole.
TEST_P(AllRecords, LongerScalarElementsAreSkippedWhole) {
    Record src(&s());
    fillFull(s(), src.data(), 7, Counts::kCapacity);
    const Bytes wire = encode(s(), src.data());
    for (const Element& e : elements(s(), src.data())) {
        if (e.field->kind != CORVANE_FIELD_U32) continue;
        Bytes longer(20, 0xEE);
        std::memcpy(longer.data(), wire.data() + e.wireOffset, 12);
        putBe32(longer.data() + 4, 12);
        const Bytes edited = replaceElement(wire, e, longer);
        ExactBuffer exact(edited);
        Record back(&s());
        const uint8_t* in = exact.data();
        ASSERT_EQ(0u, ops().unserializeBounded(back.data(), &in, exact.data() + exact.size()))
            << e.path;
        ASSERT_EQ(exact.data() + exact.size(), in);
        ASSERT_EQ("", diff(s(), src.data(), back.data())) << e.path;
    }
}

// Cut short anywhere, a full encoding gives 4 from the bounded reader with
// one line and no read past the cut (AddressSanitizer builds poison the rest
// of the buffer).
TEST_P(AllRecords, TruncationAtEveryLength) {
    Record src(&s()), dst(&s());
    fillFull(s(), src.data(), 8, Counts::kCapacity);
    const Bytes wire = encode(s(), src.data());
    ExactBuffer exact(wire);
    // Every length; an emulated run (CORVANE_TRUNCATION_STRIDE=n) takes every
    // n-th length and every length near an element boundary.
    std::set<size_t> cuts;
    const char* env = std::getenv("CORVANE_TRUNCATION_STRIDE");
    const size_t stride = env && std::atoi(env) > 0 ? static_cast<size_t>(std::atoi(env)) : 1;
    for (size_t n = 0; n < wire.size(); n += stride) cuts.insert(n);
    for (const Element& e : elements(s(), src.data()))
        for (size_t d = 0; d < 13; ++d) {
            if (e.wireOffset + d < wire.size()) cuts.insert(e.wireOffset + d);
            if (e.wireOffset + e.wireSize >= d + 1) cuts.insert(e.wireOffset + e.wireSize - d - 1);
        }
    for (size_t n : cuts) {
        exact.limit(n);
        clearLog();
        const uint8_t* in = exact.data();
        ASSERT_EQ(4u, ops().unserializeBounded(dst.data(), &in, exact.data() + n)) << n;
        ASSERT_LE(in, exact.data() + n);
        ASSERT_EQ(1u, logLines().size()) << n;
        const std::string& line = logLines()[0].text;
        ASSERT_TRUE(line.find("runs past the end of the buffer") != std::string::npos ||
                    line.find("has no NUL before the end of the buffer") != std::string::npos)
            << line;
    }
    exact.limit(wire.size());
}

std::string nameOf(const testing::TestParamInfo<const CorVaneSchema*>& info) {
    return info.param->name;
}

INSTANTIATE_TEST_SUITE_P(Registry, AllRecords, testing::ValuesIn(allRecords()), nameOf);

}  // namespace
}  // namespace cvtest
