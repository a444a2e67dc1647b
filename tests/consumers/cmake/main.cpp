// Round-trips a Registrar through the installed library and prints its length.
#include <cstdio>
#include <cstring>
#include <vector>

#include "corvane/corvane.h"

int main() {
    Registrar out{};
    out.value1 = 7;
    out.value6 = 0x01020304;
    std::strcpy(out.text1, "sip.example.net");
    std::strcpy(out.text5, "registrar backup");

    const uint32_t length = corVane_Registrar_serialize_lg(&out);
    std::vector<uint8_t> wire(length);
    uint8_t* w = wire.data();
    if (corVane_Registrar_serialize(&out, &w) != CORVANE_OK || w != wire.data() + length) {
        std::puts("serialize failed");
        return 1;
    }
    Registrar in{};
    const uint8_t* r = wire.data();
    if (corVane_Registrar_unserialize_bounded(&in, &r, wire.data() + length) != CORVANE_OK ||
        r != wire.data() + length || std::memcmp(&in, &out, sizeof in) != 0) {
        std::puts("round trip failed");
        return 1;
    }
    std::printf("Registrar: %u bytes on the wire, round trip ok\n", length);
    return 0;
}
