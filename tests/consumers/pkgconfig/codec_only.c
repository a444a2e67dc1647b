/* Calls only the codec: nothing here names a middleware function, so only
 * the pkg-config line keeps the D-Bus middleware that libCorvane imports.
 * Linked with -Wl,--as-needed, as some distributions' compilers do by
 * default. */
#include <stdio.h>

#include "corvane/corvane.h"

int main(void)
{
    lineCallState in = {7, 8, 9}, out = {0, 0, 0};
    uint8_t wire[64];
    uint8_t *cursor = wire;
    const uint8_t *read = wire;
    uint32_t length = corVane_lineCallState_serialize_lg(&in);
    int ok = length <= sizeof wire && corVane_lineCallState_serialize(&in, &cursor) == 0 &&
             corVane_lineCallState_unserialize_bounded(&out, &read, wire + length) == 0 &&
             out.value1 == 7 && out.value2 == 8 && out.value3 == 9;

    printf("codec only: lineCallState %u bytes, round trip %s\n", length, ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
