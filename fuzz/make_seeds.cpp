// Writes the seed corpora of the fuzz targets from valid encodings:
//   <dir>/record/<Record>-<fill>    record index byte, then the record's encoding
//   <dir>/message/<Method>-<fill>   message index byte (commands, then
//                                   notifications), then the serialised body
// for empty instances, random ones (texts of random length, counts up to two
// above capacity) and full ones (texts at capacity - 1, counts at capacity).
// Every record seed is read back and compared before it is written.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

namespace fs = std::filesystem;
enum class Fill { kEmpty, kRandom, kFull };
const struct {
    Fill how;
    const char* name;
} kFills[] = {{Fill::kEmpty, "empty"}, {Fill::kRandom, "random"}, {Fill::kFull, "full"}};

// Fills a zeroed record as `how` asks; the random content depends only on `seed`.
void fillRecord(const CorVaneSchema& s, void* rec, Fill how, uint32_t seed) {
    if (how == Fill::kFull) {
        cvtest::fillFull(s, rec, seed, cvtest::Counts::kCapacity);
    } else if (how == Fill::kRandom) {
        std::mt19937 rng(seed);
        cvtest::fillRandom(s, rec, rng);
    }
}

void write(const fs::path& file, uint8_t selector, const uint8_t* bytes, size_t length) {
    std::ofstream out(file, std::ios::binary);
    out.put(static_cast<char>(selector));
    out.write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(length));
    if (!out) cvfuzz::fail("cannot write", file.string());
}

size_t recordSeeds(const fs::path& dir) {
    size_t written = 0;
    for (uint32_t i = 0; i < corVane_recordCount(); ++i) {
        const CorVaneSchema& s = *corVane_recordSchemaAt(i);
        for (const auto& fill : kFills) {
            std::vector<uint8_t> rec(s.size), back(s.size);
            fillRecord(s, rec.data(), fill.how, i + 1);
            std::vector<uint8_t> wire(corVane_record_serialize_lg(&s, rec.data()));
            uint8_t* out = wire.data();
            const uint8_t* in = wire.data();
            if (corVane_record_serialize(&s, rec.data(), &out) != 0 ||
                corVane_record_unserialize_bounded(&s, back.data(), &in, wire.data() + wire.size()) != 0 ||
                !cvtest::diff(s, rec.data(), back.data()).empty())
                cvfuzz::fail("record seed does not round-trip:", s.name);
            write(dir / (std::string(s.name) + "-" + fill.name), static_cast<uint8_t>(i), wire.data(),
                  wire.size());
            ++written;
        }
    }
    return written;
}

size_t messageSeeds(const fs::path& dir) {
    size_t written = 0;
    for (uint32_t n = 0; n < cvfuzz::kMessageCount; ++n) {
        const CorVaneMessageInfo& m = *cvfuzz::messageAt(n);
        const CorVaneMethod& method = cvfuzz::methodOf(m);
        for (const auto& fill : kFills) {
            void* body = std::calloc(1, m.bodySize);
            std::memcpy(body, &m.magic, 4);
            fillRecord(*m.payload, corVane_bodyPayload(body), fill.how, n + 1);
            uint8_t* bytes = nullptr;
            uint32_t length = 0;
            void* back = nullptr;
            uint32_t size = 0;
            if (method.serializeBody(CORVANE_BODY_REQUEST, body, &bytes, &length) != 0 ||
                corVane_unserializeBody_bounded(&m, CORVANE_BODY_REQUEST, bytes, length, &back, &size) != 0)
                cvfuzz::fail("message seed does not round-trip:", m.name);
            write(dir / (std::string(m.name) + "-" + fill.name), static_cast<uint8_t>(n), bytes, length);
            method.freeBody(CORVANE_BODY_REQUEST, back);
            method.freeBody(CORVANE_BODY_REQUEST, body);
            std::free(bytes);
            ++written;
        }
    }
    return written;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <output directory>\n", argv[0]);
        return 2;
    }
    const fs::path root(argv[1]);
    fs::create_directories(root / "record");
    fs::create_directories(root / "message");
    const size_t records = recordSeeds(root / "record");
    const size_t messages = messageSeeds(root / "message");
    std::printf("%zu record seeds, %zu message seeds in %s\n", records, messages, argv[1]);
    return 0;
}
