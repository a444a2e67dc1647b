/* Compiled as C99 with -pedantic -Werror: every public header must be valid C.
 * The C++ tests call the function below. */
#include "corvane/corvane.h"

#include <stddef.h>
#include <string.h>

/* A dectRepeater round trip through the typed operations, and the
 * descriptor's method entries as C sees them; 0 when all is well. */
int cvtest_c_api(void)
{
    dectRepeater in = {1u, 0x01020304u, 0xffffffffu, "repeater-12", "abcd"}, out;
    unsigned char buffer[128];
    uint8_t *w = buffer;
    const uint8_t *r = buffer;
    const CorVaneMethod *m = corVane_intfMethods((const CorVaneIntfDesc *)(const void *)&corVane_base.ntfy);

    memset(&out, 0, sizeof out);
    if (corVane_dectRepeater_serialize_lg(&in) != 36u + 24u + 16u) return 1;
    if (corVane_dectRepeater_serialize(&in, &w) != CORVANE_OK || w != buffer + 76) return 2;
    if (corVane_dectRepeater_unserialize_bounded(&out, &r, w) != CORVANE_OK || r != w) return 3;
    if (memcmp(&in, &out, offsetof(dectRepeater, text2) + sizeof in.text2) != 0) return 4;
    if (m[29].index != 29u || strcmp(m[29].name, "StopAutoCall") != 0) return 5;
    return corVane_base.cmd.count == CORVANE_CMD_COUNT ? 0 : 6;
}
