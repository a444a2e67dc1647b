/* Compiled as C99 with -pedantic -Werror: every public header must be valid C.
 * The functions below use the API from C; the C++ tests call them. */
#include "corvane/corvane.h"

#include <string.h>

/* Round-trips a dectRepeater through the typed operations, from C. */
int cvtest_c_roundtrip(void)
{
    dectRepeater in, out;
    unsigned char buffer[128];
    uint8_t *w = buffer;
    const uint8_t *r = buffer;
    uint32_t length;

    memset(&in, 0, sizeof in);
    memset(&out, 0, sizeof out);
    in.value1 = 1u;
    in.value2 = 0x01020304u;
    in.value3 = 0xffffffffu;
    strcpy(in.text1, "repeater-12");
    strcpy(in.text2, "abcd");
    length = corVane_dectRepeater_serialize_lg(&in);
    if (length > sizeof buffer) return 1;
    if (corVane_dectRepeater_serialize(&in, &w) != CORVANE_OK) return 2;
    if ((uint32_t)(w - buffer) != length) return 3;
    if (corVane_dectRepeater_unserialize_bounded(&out, &r, buffer + length) != CORVANE_OK) return 4;
    if (r != w) return 5;
    if (out.value2 != in.value2 || out.value3 != in.value3) return 6;
    if (strcmp(out.text1, in.text1) != 0 || strcmp(out.text2, in.text2) != 0) return 7;
    return 0;
}

/* The descriptor as C sees it: method entries follow each interface head. */
int cvtest_c_descriptor(void)
{
    const CorVaneMethod *m = corVane_intfMethods((const CorVaneIntfDesc *)(const void *)&corVane_base.ntfy);
    if (corVane_base.cmd.count != CORVANE_CMD_COUNT) return 1;
    if (m[29].index != 29u || strcmp(m[29].name, "StopAutoCall") != 0) return 2;
    if (corVane_messageByName("OnPingSip")->index != 28u) return 3;
    return 0;
}
