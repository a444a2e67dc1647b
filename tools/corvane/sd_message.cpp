// A message received through sd-bus, back in D-Bus wire form. sd-bus keeps
// the bytes it received to itself (its public API has no call that hands
// them out), so the header is rebuilt from its getters and the body from
// its values, walked with the message's own reader, in little-endian order.
// The result carries the same header fields and the same values; padding and
// byte order may differ from what the sender wrote.
#include "sd_message.h"

#include <stdexcept>

namespace cvi {
namespace {

struct SdFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void check(int r, const char* what) {
    if (r < 0) throw SdFailure(what);
}

std::optional<std::string> maybe(const char* s) {
    return s ? std::optional<std::string>(s) : std::nullopt;
}

// Copies the values of the current container, in order, into w.
void copyValues(sd_bus_message* m, DbusWriter& w, int depth) {
    if (depth > 64) throw SdFailure("values nested too deeply");
    for (;;) {
        char type = 0;
        const char* contents = nullptr;
        const int r = sd_bus_message_peek_type(m, &type, &contents);
        check(r, "peek");
        if (r == 0) return;
        switch (type) {
            case 'a': {
                if (contents && contents[0] == 'y' && contents[1] == '\0') {  // ay, in one piece
                    const void* data = nullptr;
                    size_t size = 0;
                    check(sd_bus_message_read_array(m, 'y', &data, &size), "read ay");
                    const DbusWriter::Array a = w.openArray(1);
                    const auto* p = static_cast<const uint8_t*>(data);
                    w.bytes().insert(w.bytes().end(), p, p + size);
                    w.closeArray(a);
                    break;
                }
                const DbusWriter::Array a = w.openArray(dbusAlignment(contents ? contents[0] : 'y'));
                check(sd_bus_message_enter_container(m, 'a', contents), "enter array");
                copyValues(m, w, depth + 1);
                check(sd_bus_message_exit_container(m), "exit array");
                w.closeArray(a);
                break;
            }
            case 'r':
            case 'e':
                w.align(8);
                check(sd_bus_message_enter_container(m, type, contents), "enter struct");
                copyValues(m, w, depth + 1);
                check(sd_bus_message_exit_container(m), "exit struct");
                break;
            case 'v':
                w.signature(contents ? contents : "");
                check(sd_bus_message_enter_container(m, 'v', contents), "enter variant");
                copyValues(m, w, depth + 1);
                check(sd_bus_message_exit_container(m), "exit variant");
                break;
            case 's':
            case 'o':
            case 'g': {
                const char* s = nullptr;
                check(sd_bus_message_read_basic(m, type, &s), "read text");
                if (type == 'g') w.signature(s);
                else w.string(s);
                break;
            }
            case 'y': {
                uint8_t v = 0;
                check(sd_bus_message_read_basic(m, type, &v), "read byte");
                w.u8(v);
                break;
            }
            case 'n':
            case 'q': {
                uint16_t v = 0;
                check(sd_bus_message_read_basic(m, type, &v), "read 16 bits");
                w.u16(v);
                break;
            }
            case 'b': {
                int v = 0;
                check(sd_bus_message_read_basic(m, type, &v), "read boolean");
                w.u32(v ? 1u : 0u);
                break;
            }
            case 'i':
            case 'u': {
                uint32_t v = 0;
                check(sd_bus_message_read_basic(m, type, &v), "read 32 bits");
                w.u32(v);
                break;
            }
            case 'h': {  // a monitor receives no file descriptors: their index, 0
                int fd = -1;
                check(sd_bus_message_read_basic(m, type, &fd), "read fd");
                w.u32(0);
                break;
            }
            case 'x':
            case 't':
            case 'd': {
                uint64_t v = 0;
                check(sd_bus_message_read_basic(m, type, &v), "read 64 bits");
                w.u64(v);
                break;
            }
            default:
                throw SdFailure("unknown type");
        }
    }
}

}  // namespace

std::optional<DbusMessage> dbusMessageOf(sd_bus_message* m) {
    DbusMessage out;
    uint8_t type = 0;
    uint64_t cookie = 0;
    if (sd_bus_message_get_type(m, &type) < 0 || sd_bus_message_get_cookie(m, &cookie) < 0)
        return std::nullopt;
    out.type = type;
    out.serial = static_cast<uint32_t>(cookie);
    // sd-bus tells the flags of method calls only; the others never expect a
    // reply, and their senders mark them so.
    if (type != SD_BUS_MESSAGE_METHOD_CALL || sd_bus_message_get_expect_reply(m) <= 0)
        out.flags |= DbusMessage::kNoReplyExpected;
    if (type == SD_BUS_MESSAGE_METHOD_CALL && sd_bus_message_get_auto_start(m) == 0)
        out.flags |= DbusMessage::kNoAutoStart;
    if (sd_bus_message_get_allow_interactive_authorization(m) > 0)
        out.flags |= DbusMessage::kAllowInteractiveAuth;
    if (uint64_t reply = 0; sd_bus_message_get_reply_cookie(m, &reply) >= 0)
        out.replySerial = static_cast<uint32_t>(reply);
    out.path = maybe(sd_bus_message_get_path(m));
    out.interface = maybe(sd_bus_message_get_interface(m));
    out.member = maybe(sd_bus_message_get_member(m));
    if (const sd_bus_error* e = sd_bus_message_get_error(m); e && e->name) out.errorName = e->name;
    out.destination = maybe(sd_bus_message_get_destination(m));
    out.sender = maybe(sd_bus_message_get_sender(m));
    const char* sig = sd_bus_message_get_signature(m, 1);
    out.signature = sig ? sig : "";
    try {
        DbusWriter body;
        check(sd_bus_message_rewind(m, 1), "rewind");
        copyValues(m, body, 0);
        sd_bus_message_rewind(m, 1);
        out.body = std::move(body.bytes());
    } catch (const SdFailure&) {
        return std::nullopt;
    }
    return out;
}

}  // namespace cvi
