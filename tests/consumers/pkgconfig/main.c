/* Serialises a SetLineCallState body with the message's own callback, reads
 * it back with the bounded decoder and prints its length, and the bus name
 * the D-Bus middleware gives the user "voice". */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "corvane/corvane.h"
#include "quib_dbus.h"

int main(void)
{
    const CorVaneMessageInfo *msg = corVane_messageByName("SetLineCallState");
    const CorVaneMethod *method;
    lineCallState *payload;
    void *body, *back = NULL;
    uint8_t *wire = NULL;
    uint32_t length = 0, size = 0;
    char busName[256];
    int ok;

    if (!msg || msg->intf != CORVANE_INTF_CMD) {
        puts("SetLineCallState not found");
        return 1;
    }
    method = &corVane_intfMethods((const CorVaneIntfDesc *)&corVane_base.cmd)[msg->index];
    body = calloc(1, msg->bodySize);
    if (!body)
        return 1;
    memcpy(body, &msg->magic, sizeof msg->magic);
    payload = corVane_bodyPayload(body);
    payload->value1 = 1;
    payload->value2 = 2;
    payload->value3 = 3;

    if (method->serializeBody(CORVANE_BODY_REQUEST, body, &wire, &length) != CORVANE_OK) {
        puts("serializeBody failed");
        return 1;
    }
    ok = corVane_unserializeBody_bounded(msg, CORVANE_BODY_REQUEST, wire, length, &back,
                                         &size) == CORVANE_OK &&
         size == msg->bodySize &&
         memcmp(corVane_bodyPayload(back), payload, sizeof *payload) == 0;
    printf("%s body: %u bytes on the wire, round trip %s\n", msg->name, length,
           ok ? "ok" : "FAILED");
    if (quibDbus_busName("voice", busName, sizeof busName) == 0) printf("user voice: %s\n", busName);
    method->freeBody(CORVANE_BODY_REQUEST, body);
    if (back)
        method->freeBody(CORVANE_BODY_REQUEST, back);
    free(wire);
    return ok ? 0 : 1;
}
