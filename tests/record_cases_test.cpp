// Cases particular to some records: what follows an empty or over-full
// array on the wire, and a stream whose inline children come in the wrong
// order.
#include <gtest/gtest.h>

#include <cstring>

#include "corvane/records.h"
#include "support/records.h"
#include "support/syslog_capture.h"
#include "support/wire_edit.h"

namespace cvtest {
namespace {

void setWord(Record& r, const char* field, uint32_t v) {
    for (uint32_t i = 0; i < r.schema()->fieldCount; ++i)
        if (std::strcmp(r.schema()->fields[i].name, field) == 0) {
            std::memcpy(r.data() + r.schema()->fields[i].offset, &v, 4);
            return;
        }
    FAIL() << "no field " << field;
}

// The tags of the record's own elements (not those of nested records or
// entries), in wire order, and the number of elements between two of them.
struct TopLevel {
    std::vector<uint32_t> tags;
    std::vector<size_t> indices;  // index of each in the full element list
    size_t total;                 // elements in all
};

TopLevel topLevel(const CorVaneSchema& s, const void* rec) {
    TopLevel t;
    const auto els = elements(s, rec);
    t.total = els.size();
    for (size_t i = 0; i < els.size(); ++i)
        if (els[i].levels.size() == 1) {
            t.tags.push_back(els[i].tag);
            t.indices.push_back(i);
        }
    return t;
}

// A counted array with count 0 adds nothing after its count element; a
// count above the capacity is written as is and capacity entries follow.
// nextTag is the record's own element after the entries (0: none, the
// array ends the record).
struct ArrayCase {
    const char* record;
    const char* count;
    uint32_t countTag, nextTag, entryElements, capacity;
};

void PrintTo(const ArrayCase& c, std::ostream* os) { *os << c.record << "." << c.count; }

class CountedArrays : public testing::TestWithParam<ArrayCase> {};

TEST_P(CountedArrays, EntriesFollowTheirCount) {
    const ArrayCase& c = GetParam();
    const CorVaneSchema* s = corVane_recordSchema(c.record);
    ASSERT_NE(nullptr, s);
    for (uint32_t count : {0u, 1u, c.capacity, c.capacity + 1, 0xffffffffu}) {
        Record r(s);
        setWord(r, c.count, count);
        const TopLevel t = topLevel(*s, r.data());
        size_t at = 0;
        while (at < t.tags.size() && t.tags[at] != c.countTag) ++at;
        ASSERT_LT(at, t.tags.size());
        size_t next = t.total;
        if (c.nextTag) {
            ASSERT_LT(at + 1, t.tags.size());
            EXPECT_EQ(c.nextTag, t.tags[at + 1]);
            next = t.indices[at + 1];
        } else {
            EXPECT_EQ(at + 1, t.tags.size());
        }
        const size_t entries = std::min(count, c.capacity);
        EXPECT_EQ(entries * c.entryElements, next - t.indices[at] - 1) << count;
        // The count is written as it stands and read back as it came.
        const Bytes wire = encode(*s, r.data());
        Record back(s);
        const uint8_t* in = wire.data();
        ASSERT_EQ(0u, corVane_record_unserialize_bounded(s, back.data(), &in, wire.data() + wire.size()));
        EXPECT_EQ("", diff(*s, r.data(), back.data()));
        EXPECT_EQ(wire.data() + wire.size(), in);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Records, CountedArrays,
    testing::Values(ArrayCase{"ProfileSIP", "eventSubscribeNumberOfEntries", 45, 47, 6, 40},
                    ArrayCase{"VoiceProfile", "digitMapNumberOfEntries", 31, 33, 3, 40},
                    ArrayCase{"ProfileFQDNServers", "fqdnServersNumberOfEntries", 4, 0, 7, 20},
                    ArrayCase{"LineRinger", "eventNumberOfEntries", 3, 5, 2, 40},
                    ArrayCase{"LineRinger", "descriptionNumberOfEntries", 5, 7, 5, 40},
                    ArrayCase{"LineCodec", "listNumberOfEntries", 10, 0, 8, 40},
                    ArrayCase{"LineSIP", "eventSubscribeNumberOfEntries", 6, 0, 4, 40},
                    ArrayCase{"ProfileLine", "sessionNumberOfEntries", 22, 0, 5, 40},
                    ArrayCase{"PhyInterface", "codecCount", 17, 19, 1, 40}),
    [](const testing::TestParamInfo<ArrayCase>& i) {
        return std::string(i.param.record) + "_" + i.param.count;
    });

// PhyInterface writes its fxs settings before its isdn settings; a stream
// with the two swapped fails inside the fxs reader.
TEST(InlineChildren, SwappedFxsAndIsdnAreRefused) {
    const CorVaneSchema* s = corVane_recordSchema("PhyInterface");
    Record r(s);
    fillFull(*s, r.data(), 21, Counts::kCapacity);
    const Bytes wire = encode(*s, r.data());
    const auto els = elements(*s, r.data());
    size_t fxsFrom = SIZE_MAX, fxsTo = 0, isdnFrom = SIZE_MAX, isdnTo = 0;
    for (const Element& e : els) {
        if (e.path.rfind("fxs.", 0) == 0) {
            fxsFrom = std::min(fxsFrom, e.wireOffset);
            fxsTo = e.wireOffset + e.wireSize;
        }
        if (e.path.rfind("isdn.", 0) == 0) {
            isdnFrom = std::min(isdnFrom, e.wireOffset);
            isdnTo = e.wireOffset + e.wireSize;
        }
    }
    ASSERT_EQ(fxsTo, isdnFrom);
    Bytes swapped(wire.begin(), wire.begin() + static_cast<std::ptrdiff_t>(fxsFrom));
    swapped.insert(swapped.end(), wire.begin() + static_cast<std::ptrdiff_t>(isdnFrom),
                   wire.begin() + static_cast<std::ptrdiff_t>(isdnTo));
    swapped.insert(swapped.end(), wire.begin() + static_cast<std::ptrdiff_t>(fxsFrom),
                   wire.begin() + static_cast<std::ptrdiff_t>(fxsTo));
    swapped.insert(swapped.end(), wire.begin() + static_cast<std::ptrdiff_t>(isdnTo), wire.end());
    ASSERT_EQ(wire.size(), swapped.size());

    Record back(s);
    clearLog();
    const uint8_t* in = swapped.data();
    ASSERT_EQ(4u, corVane_record_unserialize_bounded(s, back.data(), &in,
                                                     swapped.data() + swapped.size()));
    EXPECT_GE(in, swapped.data() + fxsFrom);
    EXPECT_LT(in, swapped.data() + isdnTo);
    const auto lines = logTextsWithoutLine();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(0u, lines[0].find("corVane_phyInterfaceFxs_unserialize: pBody(")) << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find(") expectded("));
    // The parent reports its own later elements: codecCount, value3, value4, value5.
    const std::vector<std::string> tail(lines.end() - 4, lines.end());
    const std::string parent = "corVane_PhyInterface_unserialize: pBody(" + ptr(swapped.data()) + "): Type(";
    EXPECT_EQ((std::vector<std::string>{parent + "17) -> Error Before\n", parent + "19) -> Error Before\n",
                                        parent + "20) -> Error Before\n", parent + "22) -> Error Before\n"}),
              tail);
}

}  // namespace
}  // namespace cvtest
