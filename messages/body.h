// One implementation of every per-message function, driven by the message's
// descriptor; the exported functions of each message call into it.
#pragma once

#include <cstdint>

#include "corvane/messages.h"

namespace cv::msg {

using Msg = CorVaneMessageInfo;

void freeBody(const Msg& m, uint32_t kind, void* body);
uint32_t serializeBody(const Msg& m, uint32_t kind, void* body, uint8_t** buffer,
                       uint32_t* length);
// bounded: nothing at or beyond end is read.
uint32_t unserializeBody(const Msg& m, uint32_t kind, const uint8_t* buffer, const uint8_t* end,
                         bool bounded, void** body, uint32_t* size);
void logBody(const Msg& m, char** text);
void receive(const Msg& m, void* ctx, void* body, CorVaneHandler handler, void* arg);

// payload points to a payload of the message's type, or is null (logged).
uint32_t sendCommand(const Msg& m, void* user, void* arg, const char* userName,
                     const void* payload);
void sendNotification(const Msg& m, void* user, void* dest1, void* dest2, const void* payload);

uint32_t registerServer(const Msg& m, void* user, void* a, void* b, void* c);
uint32_t subscribe(const Msg& m, void* user, void* a, void* b, void* c, const char* busName,
                   const char* userName);
uint32_t registerNeedUpdate(const Msg& m, void* user, void* a, void* b, void* c);

// Copies a caller's text into a payload field as strncpy(field, text, size)
// does; a null text is taken as empty. The body copy then cuts the field to
// size - 1 characters.
void putText(char* field, const char* text, uint32_t size);

}  // namespace cv::msg
