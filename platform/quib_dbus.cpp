// The middleware functions libCorvane imports (quib.h), over D-Bus with
// sd-bus. quib_dbus.h says how users, tables, commands and notifications
// map onto the bus.
//
// Choices, the same as the in-process stand-in's where the contract leaves
// room:
//  - A table is handed out all zero; the caller fills in every word. Its
//    name must make a path element (not empty), else it is refused.
//  - A server registration is keyed by (cmdDesc->num, method), a subscription
//    and a need for updates by (ntfyDesc->num, method), read when the call is
//    made; a NULL descriptor, one that names no live table or has no entry
//    for the method, or a user that is not ours, is refused with
//    QUIB_DBUS_E_NO_TABLE / QUIB_DBUS_E_USER. Registering again replaces the
//    handler (a) and its argument (b) in place.
//  - The receive function is read from the registration's descriptor at
//    delivery time. The received body is released with the row's freeBody
//    (free() when the row has none).
//  - A message context is valid during the receive call only.
//  - Unregistering a user (quibIntf_unregUser_msgMngt) leaves its server and
//    subscriber registrations alone.
//  - No library callback runs with a registration list half-changed, so
//    handlers may register, send and answer.

#include "quib_dbus.h"

#include <errno.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

#include "corvane/base.h"
#include "corvane/messages.h"
#include "dbus_loop.h"

namespace {

constexpr const char kUserPrefix[] = "org.corvane.user.";
constexpr const char kPathPrefix[] = "/org/corvane/";
constexpr const char kIntfPrefix[] = "org.corvane.";
constexpr size_t kMaxBusName = 255;  // the bus's limit on names

struct Table {
    QuibMsgMngtTable *words;
    std::string name;
    std::string path;   // /org/corvane/<escaped name>
    std::string intf;   // org.corvane.<escaped name>
    uint16_t count;
};

struct User;

// A server or a subscriber of (num, method).
struct Registration {
    User *user;
    uint16_t num;
    uint16_t method;
    const CorVaneIntfDesc *desc;
    CorVaneHandler handler;
    void *arg;
    sd_bus_slot *match;  // a subscriber's match rule
};

// An object path a user serves: the table's name, looked up at each call.
struct Served {
    User *user;
    std::string table;
    sd_bus_slot *slot;
};

struct User {
    sd_bus *bus = nullptr;
    std::string name;
    std::string busName;
    uint32_t lastStatus = 0;
    sd_bus_slot *filter = nullptr;
    std::vector<std::unique_ptr<Served>> served;
};

struct UpdateNeed {
    User *user;
    uint16_t num;
    uint16_t method;
};

// The context handed to a receive function and its handler; contexts under
// delivery are linked through `next` (they live on the delivering stack).
struct MsgCtx {
    uint16_t num;
    uint16_t method;
    User *to;
    sd_bus_message *message;
    bool answered;
    uint32_t status;
    MsgCtx *next;
};

struct Peer {
    std::string name;
    int32_t pid;
};

struct State {
    std::map<uint16_t, Table> tables;
    uint16_t nextNum = 1;
    std::vector<std::unique_ptr<User>> users;
    std::vector<std::pair<User *, uint16_t>> userRegs;
    std::vector<std::unique_ptr<Registration>> servers;
    std::vector<std::unique_ptr<Registration>> subscribers;
    std::vector<UpdateNeed> updates;
    uint32_t timeoutMs = 0;  // 0: the default
    MsgCtx *live = nullptr;
    std::map<std::string, Peer> peers;  // by unique connection name
    std::string namedAddress;           // quibDbus_address of "system" or "user"
    std::string addressProblem;         // quibDbus_addressProblem's last line
};

// Never destroyed: the library may call in while the process exits.
State &st()
{
    static State *const s = new State;
    return *s;
}

template <class R, class F>
R guarded(R onError, F f) noexcept
{
    try {
        return f();
    } catch (...) {
        return onError;
    }
}

void logError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void logError(const char *fmt, ...)
{
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    syslog(LOG_ERR, "[QUIB-DBUS] %s", text);
}

// ---- names ------------------------------------------------------------------

bool isAlnum(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// [A-Za-z0-9] kept; every other byte, and a leading digit, as _xx.
std::string escape(const char *name)
{
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p) {
        const bool leadingDigit = out.empty() && *p >= '0' && *p <= '9';
        if (isAlnum(*p) && !leadingDigit) {
            out += static_cast<char>(*p);
        } else {
            out += '_';
            out += kHex[*p >> 4];
            out += kHex[*p & 15];
        }
    }
    return out;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

std::string unescape(const char *escaped)
{
    std::string out;
    for (const char *p = escaped; *p; ++p) {
        int hi, lo;
        if (*p == '_' && (hi = hexValue(p[1])) >= 0 && (lo = hexValue(p[2])) >= 0) {
            out += static_cast<char>(hi << 4 | lo);
            p += 2;
        } else {
            out += *p;
        }
    }
    return out;
}

// ---- statuses -----------------------------------------------------------------

uint32_t timeoutMs()
{
    State &s = st();
    if (s.timeoutMs != 0)
        return s.timeoutMs;
    if (const char *env = std::getenv("CORVANE_BUS_TIMEOUT_MS")) {
        char *end = nullptr;
        const unsigned long ms = std::strtoul(env, &end, 10);
        if (end != env && *end == '\0' && ms > 0 && ms <= UINT32_MAX)
            return static_cast<uint32_t>(ms);
    }
    return QUIB_DBUS_TIMEOUT_MS;
}

// The status of a failed call, from the error the bus or sd-bus gave.
uint32_t statusOfError(const sd_bus_error *error, int r)
{
    static const struct {
        const char *name;
        uint32_t status;
    } kErrors[] = {
        {SD_BUS_ERROR_SERVICE_UNKNOWN, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_NAME_HAS_NO_OWNER, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_UNKNOWN_METHOD, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_UNKNOWN_OBJECT, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_UNKNOWN_INTERFACE, QUIB_DBUS_E_NO_SERVER},
        {SD_BUS_ERROR_TIMEOUT, QUIB_DBUS_E_TIMEOUT},
        // The bus's answer when the server's connection closed before it answered.
        {SD_BUS_ERROR_NO_REPLY, QUIB_DBUS_E_DISCONNECTED},
        {SD_BUS_ERROR_DISCONNECTED, QUIB_DBUS_E_DISCONNECTED},
    };
    if (error != nullptr && error->name != nullptr)
        for (const auto &e : kErrors)
            if (std::strcmp(error->name, e.name) == 0)
                return e.status;
    switch (-r) {
    case ETIMEDOUT:
        return QUIB_DBUS_E_TIMEOUT;
    case ECONNRESET:
    case ENOTCONN:
    case EPIPE:
    case ESHUTDOWN:
        return QUIB_DBUS_E_DISCONNECTED;
    default:
        return QUIB_DBUS_E_BUS;
    }
}

// ---- lookups --------------------------------------------------------------------

User *userOf(const void *handle)
{
    for (auto &u : st().users)
        if (u.get() == handle)
            return u.get();
    return nullptr;
}

const Table *tableNamed(const std::string &name)
{
    for (const auto &[num, t] : st().tables)
        if (t.name == name)
            return &t;
    return nullptr;
}

uint16_t numOf(const Table *t)
{
    for (const auto &[num, table] : st().tables)
        if (&table == t)
            return num;
    return QUIB_NUM_NONE;
}

// The body callbacks and names of one method, from its table.
struct Row {
    const Table *table = nullptr;
    const char *name = nullptr;
    CorVaneFreeBodyFn freeBody = nullptr;
    CorVaneSerializeBodyFn serialize = nullptr;
};

Row rowOf(uint16_t num, uint16_t method)
{
    Row row;
    auto it = st().tables.find(num);
    if (it == st().tables.end() || method >= it->second.count)
        return row;
    const QuibMsgMngtRow &r = quib_tableRows(it->second.words)[method];
    row.table = &it->second;
    row.name = r.name;
    row.freeBody = reinterpret_cast<CorVaneFreeBodyFn>(r.freeBody);
    row.serialize = reinterpret_cast<CorVaneSerializeBodyFn>(r.serializeBody);
    return row;
}

void releaseBody(CorVaneFreeBodyFn freeBody, void *body)
{
    if (body == nullptr)
        return;
    if (freeBody != nullptr)
        freeBody(CORVANE_BODY_REQUEST, body);
    else
        std::free(body);
}

Registration *findReg(std::vector<std::unique_ptr<Registration>> &regs, const User *user,
                      uint16_t num, uint16_t method)
{
    for (auto &r : regs)
        if (r->user == user && r->num == num && r->method == method)
            return r.get();
    return nullptr;
}

uint32_t checkDesc(const CorVaneIntfDesc *desc, uint16_t method)
{
    if (desc == nullptr || method >= desc->count || st().tables.count(desc->num) == 0)
        return QUIB_DBUS_E_NO_TABLE;
    return 0;
}

bool isLive(const MsgCtx *ctx)
{
    for (const MsgCtx *c = st().live; c != nullptr; c = c->next)
        if (c == ctx)
            return true;
    return false;
}

// ---- receiving ------------------------------------------------------------------

// Rebuilds the body from the message's bytes with the bounded decoder, calls
// the receive function with the registered handler and releases the body.
// Returns the answer: the decoder's status when it refused the bytes, else
// the status given through quibCore_sendMsgRes, else 0.
uint32_t deliver(const Registration &reg, sd_bus_message *m)
{
    const char *member = sd_bus_message_get_member(m);
    const CorVaneMessageInfo *info = corVane_messageByName(member);
    const Row row = rowOf(reg.num, reg.method);
    if (info == nullptr || info->index != reg.method || row.name == nullptr ||
        std::strcmp(row.name, member) != 0)
        return QUIB_DBUS_E_NO_TABLE;
    const void *bytes = nullptr;
    size_t length = 0;
    if (sd_bus_message_read_array(m, 'y', &bytes, &length) < 0)
        return CORVANE_E_ELEMENT;
    static const uint8_t kEmpty[1] = {0};
    void *body = nullptr;
    uint32_t size = 0;
    const uint32_t status = corVane_unserializeBody_bounded(
        info, CORVANE_BODY_REQUEST, bytes != nullptr ? static_cast<const uint8_t *>(bytes) : kEmpty,
        length, &body, &size);
    if (status != 0) {
        logError("%s from %s refused: status %u (%s)", member, sd_bus_message_get_sender(m),
                 status, quibDbus_strerror(status));
        return status;
    }
    // Copied: a handler may register again, which replaces reg in place.
    const CorVaneHandler handler = reg.handler;
    void *const arg = reg.arg;
    const CorVaneRecvFn recv = corVane_intfMethods(reg.desc)[reg.method].recv;
    MsgCtx ctx{reg.num, reg.method, reg.user, m, false, 0, st().live};
    st().live = &ctx;
    if (recv != nullptr)
        recv(&ctx, body, handler, arg);
    for (MsgCtx **p = &st().live; *p != nullptr; p = &(*p)->next) {
        if (*p == &ctx) {
            *p = ctx.next;
            break;
        }
    }
    releaseBody(row.freeBody, body);
    return ctx.answered ? ctx.status : 0;
}

// A method call to a path a user serves.
int onMethodCall(sd_bus_message *m, void *userdata, sd_bus_error *error)
{
    return guarded<int>(-ENOMEM, [&]() -> int {
        const Served *served = static_cast<const Served *>(userdata);
        const Table *table = tableNamed(served->table);
        const char *intf = sd_bus_message_get_interface(m);
        const char *member = sd_bus_message_get_member(m);
        if (table == nullptr || intf == nullptr || member == nullptr || table->intf != intf)
            return 0;  // not ours: sd-bus answers that the method is unknown
        const uint16_t num = numOf(table);
        Registration *reg = nullptr;
        for (uint16_t i = 0; i < table->count && reg == nullptr; ++i) {
            const char *name = quib_tableRows(table->words)[i].name;
            if (name != nullptr && std::strcmp(name, member) == 0)
                reg = findReg(st().servers, served->user, num, i);
        }
        if (reg == nullptr)
            return sd_bus_error_setf(error, SD_BUS_ERROR_UNKNOWN_METHOD,
                                     "%s serves no method %s", served->user->name.c_str(), member);
        if (!sd_bus_message_has_signature(m, "ay"))
            return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS,
                                     "%s takes one argument \"ay\"", member);
        const uint32_t answer = deliver(*reg, m);
        return sd_bus_reply_method_return(m, "u", answer);
    });
}

// A notification signal matched by a subscription.
int onSignal(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    return guarded<int>(0, [&]() -> int {
        const Registration *reg = static_cast<const Registration *>(userdata);
        if (!sd_bus_message_has_signature(m, "ay")) {
            logError("%s from %s dropped: signature \"%s\", not \"ay\"",
                     sd_bus_message_get_member(m), sd_bus_message_get_sender(m),
                     sd_bus_message_get_signature(m, 1));
            return 0;
        }
        deliver(*reg, m);
        return 0;
    });
}

// Sees every message of a user's connection first: the one sd-bus makes up
// when the connection closes stops the event loop.
int onFilter(sd_bus_message *m, void *userdata, sd_bus_error *)
{
    if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected")) {
        logError("user %s: the bus connection was lost", static_cast<User *>(userdata)->name.c_str());
        quibdbus::connectionLost();
    }
    return 0;
}

// ---- sending --------------------------------------------------------------------

// Takes the body over and serialises it; on 0 the caller frees *buf.
uint32_t takeAndSerialize(const Row &row, void *body, uint8_t **buf, uint32_t *len)
{
    if (row.table == nullptr || row.name == nullptr || row.serialize == nullptr) {
        releaseBody(row.freeBody, body);
        return QUIB_DBUS_E_NO_TABLE;
    }
    *buf = nullptr;
    *len = 0;
    const uint32_t rc = row.serialize(CORVANE_BODY_REQUEST, body, buf, len);
    releaseBody(row.freeBody, body);
    if (rc != 0 || (*buf == nullptr && *len != 0))
        return QUIB_DBUS_E_SERIALIZE;
    return 0;
}

// The message that carries the bytes, with its one "ay" argument.
int newMessage(User *u, const Row &row, const char *dest, const uint8_t *buf, uint32_t len,
               sd_bus_message **m)
{
    int r = dest != nullptr ? sd_bus_message_new_method_call(u->bus, m, dest, row.table->path.c_str(),
                                                             row.table->intf.c_str(), row.name)
                            : sd_bus_message_new_signal(u->bus, m, row.table->path.c_str(),
                                                        row.table->intf.c_str(), row.name);
    if (r >= 0)
        r = sd_bus_message_append_array(*m, 'y', buf != nullptr ? buf : reinterpret_cast<const uint8_t *>(""), len);
    return r;
}

uint32_t sendCommand(User *u, void *body, const char *userName, uint16_t num, uint16_t method)
{
    const Row row = rowOf(num, method);
    uint8_t *buf = nullptr;
    uint32_t len = 0;
    if (uint32_t rc = takeAndSerialize(row, body, &buf, &len); rc != 0)
        return rc;
    char dest[kMaxBusName + 1];
    if (userName == nullptr || quibDbus_busName(userName, dest, sizeof dest) != 0) {
        std::free(buf);
        return QUIB_DBUS_E_NO_SERVER;
    }
    sd_bus_message *m = nullptr, *reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int r = newMessage(u, row, dest, buf, len, &m);
    std::free(buf);
    if (r >= 0)
        r = sd_bus_call(u->bus, m, uint64_t{timeoutMs()} * 1000, &error, &reply);
    uint32_t status = 0;
    if (r < 0)
        status = statusOfError(&error, r);
    else if (sd_bus_message_read(reply, "u", &status) < 0)
        status = QUIB_DBUS_E_BUS;
    if (r < 0)
        logError("%s from %s to %s: %s (0x%x)%s%s", row.name, u->name.c_str(), userName,
                 quibDbus_strerror(status), status, error.message != nullptr ? ": " : "",
                 error.message != nullptr ? error.message : "");
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
    return status;
}

uint32_t sendNotification(User *u, void *body, uint16_t num, uint16_t method)
{
    const Row row = rowOf(num, method);
    uint8_t *buf = nullptr;
    uint32_t len = 0;
    if (uint32_t rc = takeAndSerialize(row, body, &buf, &len); rc != 0)
        return rc;
    sd_bus_message *m = nullptr;
    int r = newMessage(u, row, nullptr, buf, len, &m);
    std::free(buf);
    if (r >= 0)
        r = sd_bus_send(u->bus, m, nullptr);
    sd_bus_message_unref(m);
    if (r >= 0)
        return 0;
    const uint32_t status = statusOfError(nullptr, r);
    logError("%s from %s: %s (0x%x)", row.name, u->name.c_str(), quibDbus_strerror(status), status);
    return status;
}

// ---- registrations --------------------------------------------------------------

// Makes sure the user's connection serves the table's object path.
int serve(User *u, const Table &table)
{
    for (const auto &s : u->served)
        if (s->table == table.name)
            return 0;
    auto served = std::make_unique<Served>(Served{u, table.name, nullptr});
    const int r = sd_bus_add_object(u->bus, &served->slot, table.path.c_str(), onMethodCall,
                                    served.get());
    if (r >= 0)
        u->served.push_back(std::move(served));
    return r;
}

std::string matchRule(const Table &table, const char *member)
{
    return "type='signal',path='" + table.path + "',interface='" + table.intf + "',member='" +
           member + "'";
}

uint32_t enroll(std::vector<std::unique_ptr<Registration>> &regs, bool subscriber, void *user,
                const void *descPtr, uint16_t method, void *a, void *b)
{
    User *u = userOf(user);
    if (u == nullptr)
        return QUIB_DBUS_E_USER;
    const auto *desc = static_cast<const CorVaneIntfDesc *>(descPtr);
    if (uint32_t rc = checkDesc(desc, method); rc != 0)
        return rc;
    const Row row = rowOf(desc->num, method);
    if (row.name == nullptr)
        return QUIB_DBUS_E_NO_TABLE;
    const auto handler = reinterpret_cast<CorVaneHandler>(a);
    if (Registration *r = findReg(regs, u, desc->num, method)) {
        r->desc = desc;
        r->handler = handler;
        r->arg = b;
        return 0;
    }
    auto reg = std::make_unique<Registration>(
        Registration{u, desc->num, method, desc, handler, b, nullptr});
    const int r = subscriber ? sd_bus_add_match(u->bus, &reg->match,
                                                matchRule(*row.table, row.name).c_str(), onSignal,
                                                reg.get())
                             : serve(u, *row.table);
    if (r < 0) {
        const uint32_t status = statusOfError(nullptr, r);
        logError("%s of %s as %s: %s (%s)", row.name, u->name.c_str(),
                 subscriber ? "subscriber" : "server", quibDbus_strerror(status), strerror(-r));
        return status;
    }
    regs.push_back(std::move(reg));
    return 0;
}

}  // namespace

extern "C" {

// ---- tables ---------------------------------------------------------------------

uint16_t quibCore_getBase_msgMngt(const char *name, QuibMsgMngtTable **table, uint16_t count)
{
    return guarded<uint16_t>(QUIB_NUM_NONE, [&]() -> uint16_t {
        State &s = st();
        if (table == nullptr)
            return QUIB_NUM_NONE;
        *table = nullptr;
        const std::string escaped = escape(name != nullptr ? name : "");
        if (escaped.empty() || escaped.size() > kMaxBusName - std::strlen(kIntfPrefix) ||
            s.tables.size() >= QUIB_NUM_NONE - 1)
            return QUIB_NUM_NONE;
        auto *words = static_cast<QuibMsgMngtTable *>(
            std::calloc(1, sizeof(QuibMsgMngtTable) + size_t{count} * sizeof(QuibMsgMngtRow)));
        if (words == nullptr)
            return QUIB_NUM_NONE;
        uint16_t num = s.nextNum;
        while (s.tables.count(num) != 0)
            num = num >= QUIB_NUM_NONE - 1 ? 1 : num + 1;
        s.nextNum = num >= QUIB_NUM_NONE - 1 ? 1 : num + 1;
        s.tables[num] = Table{words, name, kPathPrefix + escaped, kIntfPrefix + escaped, count};
        *table = words;
        return num;
    });
}

uint32_t quibCore_putBase_msgMngt(uint16_t num, uint32_t)
{
    State &s = st();
    auto it = s.tables.find(num);
    if (it == s.tables.end())
        return QUIB_DBUS_E_NO_TABLE;
    std::free(it->second.words);
    s.tables.erase(it);
    return 0;
}

// ---- users ----------------------------------------------------------------------

uint32_t quibIntf_regUser_msgMngt(void *user, void *, void *, uint16_t num, uint16_t, uint32_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(user);
        if (u == nullptr)
            return QUIB_DBUS_E_USER;
        for (const auto &r : st().userRegs)
            if (r.first == u && r.second == num)
                return 0;
        st().userRegs.emplace_back(u, num);
        return 0;
    });
}

uint32_t quibIntf_unregUser_msgMngt(void *user, uint16_t num, uint16_t, uint32_t)
{
    std::erase_if(st().userRegs, [&](const auto &r) { return r.first == user && r.second == num; });
    return 0;
}

void *quibIntf_getCore_user(void *user)
{
    return user;
}

// ---- sending --------------------------------------------------------------------

uint32_t quibCore_sendMsgReq_toNameUser(void *coreUser, void *body, uint32_t, uint32_t, uint32_t,
                                        void *, const char *userName, uint16_t num,
                                        uint16_t method, uint16_t, uint32_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(coreUser);
        if (u == nullptr) {
            releaseBody(rowOf(num, method).freeBody, body);
            return QUIB_DBUS_E_USER;
        }
        return u->lastStatus = sendCommand(u, body, userName, num, method);
    });
}

uint32_t quibIntf_sendReq_ntfy(void *user, void *body, uint32_t, uint32_t, uint32_t, void *,
                               void *, const char *, uint16_t num, uint16_t method, uint32_t,
                               uint32_t, uint32_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(user);
        if (u == nullptr) {
            releaseBody(rowOf(num, method).freeBody, body);
            return QUIB_DBUS_E_USER;
        }
        return u->lastStatus = sendNotification(u, body, num, method);
    });
}

uint32_t quibCore_sendMsgRes(void *ctx, void *, uint32_t status, uint32_t)
{
    auto *c = static_cast<MsgCtx *>(ctx);
    if (!isLive(c))
        return QUIB_DBUS_E_USER;
    c->answered = true;
    c->status = status;
    return 0;
}

// ---- servers and subscribers ----------------------------------------------------

uint32_t quibIntf_modSrv_mthd(void *user, void *a, void *b, void *, uint32_t, const char *,
                              const void *cmdDesc, const void *, uint16_t method, uint16_t,
                              uint16_t)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        return enroll(st().servers, false, user, cmdDesc, method, a, b);
    });
}

uint32_t quibIntf_modSrv_ntfy_needUpdate(void *user, void *, void *, void *, const char *,
                                         const void *, const void *ntfyDesc, uint16_t method)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        User *u = userOf(user);
        if (u == nullptr)
            return QUIB_DBUS_E_USER;
        const auto *desc = static_cast<const CorVaneIntfDesc *>(ntfyDesc);
        if (uint32_t rc = checkDesc(desc, method); rc != 0)
            return rc;
        if (!quibDbus_needsUpdate(u, desc->num, method))
            st().updates.push_back(UpdateNeed{u, desc->num, method});
        return 0;
    });
}

uint32_t quibIntf_modCliNtfyUser_mthd(void *user, void *a, void *b, void *, uint32_t,
                                      const char *, const char *, const char *, const void *,
                                      const void *ntfyDesc, uint16_t method)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        return enroll(st().subscribers, true, user, ntfyDesc, method, a, b);
    });
}

void *quibIntf_findSrvMthdNtfyUser(void *a, void *, const char *, uint16_t, void *)
{
    return a;
}

// ---- the D-Bus side -------------------------------------------------------------

const char *quibDbus_address(const char *address)
{
    return guarded<const char *>(nullptr, [&]() -> const char * {
        const char *given = address;
        if (given == nullptr || *given == '\0')
            given = std::getenv("CORVANE_BUS");
        if (given == nullptr || *given == '\0')
            return nullptr;
        // The two buses a process finds by name, as sd_bus_open_system and
        // sd_bus_open_user find them.
        std::string &named = st().namedAddress;
        if (std::strcmp(given, "system") == 0) {
            const char *env = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
            named = env != nullptr && *env != '\0' ? env : "unix:path=/run/dbus/system_bus_socket";
            return named.c_str();
        }
        if (std::strcmp(given, "user") == 0) {
            const char *env = std::getenv("DBUS_SESSION_BUS_ADDRESS");
            const char *runtime = std::getenv("XDG_RUNTIME_DIR");
            if (env != nullptr && *env != '\0')
                named = env;
            else if (runtime != nullptr && *runtime == '/')
                named = std::string("unix:path=") + runtime + "/bus";
            else
                return nullptr;
            return named.c_str();
        }
        return given;
    });
}

const char *quibDbus_addressProblem(const char *address)
{
    return guarded<const char *>("not a bus address", [&]() -> const char * {
        if (address == nullptr || *address == '\0')
            return "no bus: give --bus ADDRESS (or system, or user) or set CORVANE_BUS";
        // Every address of a list "a;b" is transport:key=value,...
        const char *colon = std::strchr(address, ':');
        const char *semicolon = std::strchr(address, ';');
        if (colon != nullptr && (semicolon == nullptr || colon < semicolon) && colon != address)
            return nullptr;
        std::string &line = st().addressProblem;
        if (std::strchr(address, '/') != nullptr)
            line = std::string(address) + " is a path, not a bus address: give unix:path=" + address;
        else
            line = std::string(address) +
                   " is not a bus address (transport:key=value, e.g. unix:path=/run/corvane/bus), "
                   "nor system or user";
        return line.c_str();
    });
}

int quibDbus_busName(const char *userName, char *out, size_t size)
{
    return guarded<int>(-1, [&]() -> int {
        if (userName == nullptr || *userName == '\0' || out == nullptr)
            return -1;
        const std::string name = kUserPrefix + escape(userName);
        if (name.size() > kMaxBusName || name.size() + 1 > size)
            return -1;
        std::memcpy(out, name.c_str(), name.size() + 1);
        return 0;
    });
}

void *quibDbus_newUser(const char *name, const char *address, uint32_t *status)
{
    uint32_t dummy;
    uint32_t &result = status != nullptr ? *status : dummy;
    result = CORVANE_E_NOMEM;  // unless one of the answers below is given
    return guarded<void *>(nullptr, [&]() -> void * {
        char busName[kMaxBusName + 1];
        const char *addr = quibDbus_address(address);
        result = QUIB_DBUS_E_USER;
        if (quibDbus_busName(name, busName, sizeof busName) != 0)
            return nullptr;
        result = QUIB_DBUS_E_NO_BUS;
        sd_event *event = quibdbus::loopEvent();
        if (const char *problem = quibDbus_addressProblem(addr)) {
            logError("user %s: %s", name, problem);
            return nullptr;
        }
        if (event == nullptr)
            return nullptr;
        auto u = std::make_unique<User>();
        u->name = name;
        u->busName = busName;
        int r = sd_bus_new(&u->bus);
        if (r >= 0)
            r = sd_bus_set_address(u->bus, addr);
        if (r >= 0)
            r = sd_bus_set_bus_client(u->bus, 1);
        if (r >= 0)
            r = sd_bus_set_method_call_timeout(u->bus, uint64_t{timeoutMs()} * 1000);
        if (r >= 0)
            r = sd_bus_start(u->bus);
        if (r < 0) {
            logError("user %s: cannot reach the bus at %s: %s", name, addr, strerror(-r));
            sd_bus_unref(u->bus);
            return nullptr;
        }
        r = sd_bus_request_name(u->bus, busName, 0);
        if (r < 0) {
            result = r == -EEXIST || r == -EALREADY ? QUIB_DBUS_E_NAME_TAKEN
                                                    : statusOfError(nullptr, r);
            if (result == QUIB_DBUS_E_DISCONNECTED)
                result = QUIB_DBUS_E_NO_BUS;
            logError("user %s: cannot own %s: %s", name, busName, strerror(-r));
            sd_bus_flush_close_unref(u->bus);
            return nullptr;
        }
        r = sd_bus_add_filter(u->bus, &u->filter, onFilter, u.get());
        if (r >= 0)
            r = sd_bus_attach_event(u->bus, event, SD_EVENT_PRIORITY_NORMAL);
        if (r < 0) {
            result = QUIB_DBUS_E_BUS;
            sd_bus_slot_unref(u->filter);
            sd_bus_flush_close_unref(u->bus);
            return nullptr;
        }
        result = 0;
        st().users.push_back(std::move(u));
        return st().users.back().get();
    });
}

void quibDbus_freeUser(void *user)
{
    State &s = st();
    User *u = userOf(user);
    if (u == nullptr)
        return;
    auto drop = [u](std::vector<std::unique_ptr<Registration>> &regs) {
        for (auto &r : regs)
            if (r->user == u)
                sd_bus_slot_unref(r->match);
        std::erase_if(regs, [u](const auto &r) { return r->user == u; });
    };
    drop(s.servers);
    drop(s.subscribers);
    std::erase_if(s.updates, [u](const UpdateNeed &n) { return n.user == u; });
    std::erase_if(s.userRegs, [u](const auto &r) { return r.first == u; });
    for (auto &served : u->served)
        sd_bus_slot_unref(served->slot);
    sd_bus_slot_unref(u->filter);
    sd_bus_detach_event(u->bus);
    sd_bus_flush_close_unref(u->bus);
    std::erase_if(s.users, [u](const auto &p) { return p.get() == u; });
}

void quibDbus_setTimeout(uint32_t ms)
{
    st().timeoutMs = ms;
}

uint32_t quibDbus_timeout(void)
{
    return timeoutMs();
}

uint32_t quibDbus_lastStatus(void *user)
{
    const User *u = userOf(user);
    return u != nullptr ? u->lastStatus : 0;
}

const char *quibDbus_strerror(uint32_t status)
{
    switch (status) {
    case 0: return "done";
    case CORVANE_E_NOT_PROCESSED: return "not processed (a response or unknown body kind)";
    case CORVANE_E_ENVELOPE: return "envelope refused (tag 0 or 1 missing or wrong, or another message's magic)";
    case CORVANE_E_STATE: return "the base is in the wrong state";
    case CORVANE_E_ELEMENT: return "malformed payload (element mismatch, text too long or truncated)";
    case CORVANE_E_NOMEM: return "out of memory";
    case 20: return "no handler: the server registered none";
    case QUIB_DBUS_E_NO_BUS: return "no bus: no address given, or the bus cannot be reached";
    case QUIB_DBUS_E_NO_SERVER: return "no server: nobody owns the name, or it serves no such method";
    case QUIB_DBUS_E_TIMEOUT: return "timeout: no answer in time";
    case QUIB_DBUS_E_DISCONNECTED: return "disconnected: the server or the bus went away";
    case QUIB_DBUS_E_NO_TABLE: return "no table, row or serializer for the method";
    case QUIB_DBUS_E_SERIALIZE: return "serializeBody failed";
    case QUIB_DBUS_E_NAME_TAKEN: return "the user name is taken by another connection";
    case QUIB_DBUS_E_BUS: return "the bus reported an error";
    case QUIB_DBUS_E_USER: return "not a user of this bus, or a name that cannot be one";
    default: return "unknown status";
    }
}

int quibDbus_needsUpdate(void *user, uint16_t num, uint16_t method)
{
    for (const UpdateNeed &n : st().updates)
        if (n.user == user && n.num == num && n.method == method)
            return 1;
    return 0;
}

int32_t quibDbus_userPid(void *user, const char *userName)
{
    User *u = userOf(user);
    char name[kMaxBusName + 1];
    if (u == nullptr || quibDbus_busName(userName, name, sizeof name) != 0)
        return -1;
    sd_bus_creds *creds = nullptr;
    pid_t pid = -1;
    if (sd_bus_get_name_creds(u->bus, name, SD_BUS_CREDS_PID, &creds) < 0 ||
        sd_bus_creds_get_pid(creds, &pid) < 0)
        pid = -1;
    sd_bus_creds_unref(creds);
    return pid;
}

int quibDbus_ctxSender(void *ctx, char *userName, size_t size, int32_t *pid)
{
    return guarded<int>(-1, [&]() -> int {
        auto *c = static_cast<MsgCtx *>(ctx);
        if (!isLive(c))
            return -1;
        const char *unique = sd_bus_message_get_sender(c->message);
        if (unique == nullptr)
            unique = "";
        State &s = st();
        auto it = s.peers.find(unique);
        if (it == s.peers.end()) {
            // Looked up once per connection: its pid, and the user name whose
            // well-known name it owns (its unique name if none).
            Peer peer{unique, -1};
            sd_bus *bus = c->to->bus;
            sd_bus_creds *creds = nullptr;
            pid_t p;
            if (sd_bus_get_name_creds(bus, unique, SD_BUS_CREDS_PID, &creds) >= 0 &&
                sd_bus_creds_get_pid(creds, &p) >= 0)
                peer.pid = p;
            creds = sd_bus_creds_unref(creds);
            char **names = nullptr;
            if (sd_bus_list_names(bus, &names, nullptr) >= 0 && names != nullptr) {
                const size_t prefix = std::strlen(kUserPrefix);
                for (char **n = names; *n != nullptr; ++n) {
                    const char *owner = nullptr;
                    if (std::strncmp(*n, kUserPrefix, prefix) == 0 &&
                        sd_bus_get_name_creds(bus, *n, SD_BUS_CREDS_UNIQUE_NAME, &creds) >= 0 &&
                        sd_bus_creds_get_unique_name(creds, &owner) >= 0 &&
                        std::strcmp(owner, unique) == 0)
                        peer.name = unescape(*n + prefix);
                    creds = sd_bus_creds_unref(creds);
                }
            }
            for (char **n = names; n != nullptr && *n != nullptr; ++n)
                std::free(*n);
            std::free(names);
            if (s.peers.size() >= 64)
                s.peers.clear();
            it = s.peers.emplace(unique, peer).first;
        }
        if (userName != nullptr && size > 0)
            std::snprintf(userName, size, "%s", it->second.name.c_str());
        if (pid != nullptr)
            *pid = it->second.pid;
        return 0;
    });
}

}  // extern "C"
