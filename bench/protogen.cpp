// Writes the protobuf peer's message definitions from the library's schemas:
// one message per record type reachable from the named roots, a field per
// schema field with the wire tag as its number. u32 -> uint32, text -> bytes
// (no UTF-8 check on parse: the peer gets its cheapest string handling),
// inline record -> message field, record array -> repeated message (the
// count field is kept as a uint32 too, as it is on our wire).
//
// Usage: corvane_bench_protogen OUT.proto Record...
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "corvane/corvane.h"

namespace {

void collect(const CorVaneSchema* s, std::vector<const CorVaneSchema*>& order,
             std::set<const CorVaneSchema*>& seen) {
    if (!seen.insert(s).second) return;
    for (uint32_t i = 0; i < s->fieldCount; ++i)
        if (s->fields[i].record) collect(s->fields[i].record, order, seen);
    order.push_back(s);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s OUT.proto Record...\n", argv[0]);
        return 2;
    }
    std::vector<const CorVaneSchema*> order;
    std::set<const CorVaneSchema*> seen;
    for (int a = 2; a < argc; ++a) {
        const CorVaneSchema* s = corVane_recordSchema(argv[a]);
        if (!s) {
            std::fprintf(stderr, "%s: no record type %s\n", argv[0], argv[a]);
            return 1;
        }
        collect(s, order, seen);
    }
    std::string out =
        "// Written by corvane_bench_protogen from the record schemas; do not edit.\n"
        "syntax = \"proto3\";\n"
        "package corvane_peer;\n"
        "option optimize_for = SPEED;\n\n";
    for (const CorVaneSchema* s : order) {
        out += "message " + std::string(s->name) + " {\n";
        for (uint32_t i = 0; i < s->fieldCount; ++i) {
            const CorVaneField& f = s->fields[i];
            std::string type;
            switch (f.kind) {
                case CORVANE_FIELD_U32: type = "uint32"; break;
                case CORVANE_FIELD_TEXT: type = "bytes"; break;
                case CORVANE_FIELD_RECORD: type = f.record->name; break;
                default: type = std::string("repeated ") + f.record->name; break;
            }
            out += "  " + type + " " + f.name + " = " +
                   std::to_string(i + CORVANE_FIRST_TAG) + ";\n";
        }
        out += "}\n\n";
    }
    std::FILE* fp = std::fopen(argv[1], "w");
    if (!fp || std::fwrite(out.data(), 1, out.size(), fp) != out.size() || std::fclose(fp) != 0) {
        std::fprintf(stderr, "%s: cannot write %s\n", argv[0], argv[1]);
        return 1;
    }
    return 0;
}
