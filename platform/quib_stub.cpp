// The stand-in platform: an in-process, synchronous bus that provides the
// middleware (quib*) and event-loop (ranq*) functions libCorvane imports, plus
// the control interface of quib_stub.h through which tests drive it.
//
// Choices where the contract leaves room:
//  - A table is handed out all zero, word 0 included: the caller fills in
//    every word; the stand-in keeps its own copy of the name given.
//  - A server registration is keyed by (cmdDesc->num, method), a subscription
//    by (ntfyDesc->num, method), and a need-for-updates by (ntfyDesc->num,
//    method), all read when the call is made. A registration is refused with
//    QUIB_STUB_E_NO_TABLE when the descriptor is NULL, names no live table or
//    has no entry for the method, as a middleware refuses an unknown table.
//    Registering the same user again for the same (num, method) replaces its
//    handler and argument in place; its delivery order is kept.
//  - The receive function is read from the descriptor at delivery time, so a
//    descriptor edited after registration is honoured. A NULL receive
//    function means no delivery; the received body is still released.
//  - unserializeBody's size argument is in/out: it holds the length of the
//    serialised bytes on entry, and the callback may overwrite it.
//  - A body is released through the row's freeBody; when there is no row, or
//    the row has no freeBody, the stand-in releases it with free(). Either
//    way it counts as released. NULL bodies are neither counted nor released.
//  - A serialiser that fails keeps ownership of whatever it left in *buffer;
//    the stand-in only frees a buffer handed out with status 0. Status 0
//    with a NULL buffer but a non-zero length counts as a failed serialise.
//  - A missing serialise / unserialise callback behaves like one that fails
//    with QUIB_STUB_E_SERIALIZE.
//  - buffersTaken counts the serialiser's buffer and every exact-size copy
//    the bus makes of it, buffersFreed every one of those it frees, so the
//    two are equal once a send has returned.
//  - requestsSent counts commands that were serialised and found their
//    server; notificationsSent counts notifications that were serialised
//    (with or without subscribers). If unserialising fails for one
//    subscriber the others still get the notification and the first failing
//    status is returned.
//  - A message context is valid for the duration of the receive call only.
//    quibCore_sendMsgRes records num/method QUIB_NUM_NONE for a context the
//    bus does not know (e.g. one a test made up); it does not take the body.
//  - Unregistering a user that is not registered succeeds and does nothing;
//    unregistering does not touch server or subscriber registrations.
//  - quibStub_reset also restarts table numbering at 1 and drops the
//    event-loop callback.
//  - GET_CORE_USER and FIND cannot fail: a failure set for them is ignored.
//  - No lock is held while a callback of the library runs, so callbacks may
//    call back into the bus (respond, send, put a table, drop a table).

#include "quib_stub.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "corvane/base.h"

namespace {

struct User {
    std::string name;
};

struct Table {
    QuibMsgMngtTable *words;
    std::string name;
    uint16_t count;
};

// A server or subscriber of (num, method).
struct Registration {
    void *user;
    uint16_t num;
    uint16_t method;
    const CorVaneIntfDesc *desc;
    CorVaneHandler handler;
    void *arg;
};

struct UpdateNeed {
    void *user;
    uint16_t num;
    uint16_t method;
};

struct Failure {
    uint32_t code;
    uint32_t after;
};

// The context handed to a receive function and its handler. The contexts
// under delivery are linked through `next` (they live on the stack of the
// delivering call), so that delivering allocates nothing.
struct MsgCtx {
    uint16_t num;
    uint16_t method;
    void *sender;
    void *dest;
    MsgCtx *next;
};

// The body callbacks of one method's row, copied out of the table so the
// table may go away while a message is under way.
struct Row {
    bool present;
    CorVaneFreeBodyFn freeBody;
    CorVaneSerializeBodyFn serialize;
    CorVaneUnserializeBodyFn unserialize;
};

struct State {
    std::mutex mutex;
    std::map<const void *, std::unique_ptr<User>> users;
    std::map<uint16_t, Table> tables;
    uint16_t nextNum = 1;
    std::vector<std::pair<void *, uint16_t>> userRegs;
    std::vector<Registration> servers;
    std::vector<Registration> subscribers;
    std::vector<UpdateNeed> updates;
    std::vector<QuibStubResponse> responses;
    MsgCtx *liveCtx = nullptr;  // contexts under delivery, newest first
    Failure failures[QUIB_STUB_CALL_COUNT] = {};
    QuibStubCallRecord records[QUIB_STUB_CALL_COUNT] = {};
    QuibStubStats stats = {};
    RanqEvtFn evtFn = nullptr;
    void *evtCtx = nullptr;
};

// Never destroyed: the library may still call in while the process exits,
// and everything it holds stays reachable for the leak checker.
State &st()
{
    static State *const s = new State;
    return *s;
}

using Lock = std::unique_lock<std::mutex>;

template <class T>
uintptr_t word(T v)
{
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<uintptr_t>(v);
    else
        return static_cast<uintptr_t>(v);
}

// Records the call's arguments and returns the injected failure code, or 0
// when the call is to go ahead. Called with the lock held.
template <class... A>
uint32_t enter(State &s, QuibStubCall call, A... args)
{
    static_assert(sizeof...(A) <= 13);
    QuibStubCallRecord &r = s.records[call];
    const uintptr_t words[] = {word(args)...};
    std::memset(r.args, 0, sizeof r.args);
    std::memcpy(r.args, words, sizeof words);
    r.argCount = sizeof...(A);
    r.calls++;
    Failure &f = s.failures[call];
    if (f.code == 0)
        return 0;
    if (f.after > 0) {
        f.after--;
        return 0;
    }
    return f.code;
}

// What a send changes in the counters, added to them under the lock in one
// go: at the end of a delivery, in the section that takes the context back,
// and when the send is over (also when it fails or throws) for whatever is
// left. A message trip then takes the lock a few times rather than once
// per counter.
struct Tally {
    static constexpr size_t kWords = sizeof(QuibStubStats) / sizeof(uint64_t);
    static_assert(sizeof(QuibStubStats) % sizeof(uint64_t) == 0);
    QuibStubStats delta = {};
    bool any = false;

    Tally() = default;
    Tally(const Tally &) = delete;
    Tally &operator=(const Tally &) = delete;
    ~Tally()
    {
        if (!any)
            return;
        State &s = st();
        Lock lk(s.mutex);
        flush(s);
    }
    // Called with the lock held.
    void flush(State &s)
    {
        auto *to = reinterpret_cast<uint64_t *>(&s.stats);
        const auto *from = reinterpret_cast<const uint64_t *>(&delta);
        for (size_t i = 0; i < kWords; ++i)
            to[i] += from[i];
        delta = {};
        any = false;
    }
};

void count(Tally &t, uint64_t QuibStubStats::*field)
{
    t.delta.*field += 1;
    t.any = true;
}

bool isLive(const State &s, const MsgCtx *ctx)
{
    for (const MsgCtx *c = s.liveCtx; c != nullptr; c = c->next)
        if (c == ctx)
            return true;
    return false;
}

Row rowOf(State &s, uint16_t num, uint16_t method)
{
    Row row = {};
    auto it = s.tables.find(num);
    if (it == s.tables.end() || method >= it->second.count)
        return row;
    const QuibMsgMngtRow &r = quib_tableRows(it->second.words)[method];
    row.present = true;
    row.freeBody = reinterpret_cast<CorVaneFreeBodyFn>(r.freeBody);
    row.serialize = reinterpret_cast<CorVaneSerializeBodyFn>(r.serializeBody);
    row.unserialize = reinterpret_cast<CorVaneUnserializeBodyFn>(r.unserializeBody);
    return row;
}

void releaseBody(const Row &row, void *body, Tally &t)
{
    if (body == nullptr)
        return;
    if (row.freeBody != nullptr)
        row.freeBody(CORVANE_BODY_REQUEST, body);
    else
        std::free(body);
    count(t, &QuibStubStats::bodiesReleased);
}

// Validates a registration's descriptor; QUIB_STUB_E_NO_TABLE if unusable.
uint32_t checkDesc(const State &s, const CorVaneIntfDesc *desc, uint16_t method)
{
    if (desc == nullptr || method >= desc->count || s.tables.count(desc->num) == 0)
        return QUIB_STUB_E_NO_TABLE;
    return 0;
}

// Records the handler (a) and its argument (b) of one method of a registered
// table; registering the same user, table and method again replaces the row.
uint32_t enroll(State &s, std::vector<Registration> &regs, void *user, const void *descPtr,
                uint16_t method, void *a, void *b)
{
    auto *desc = static_cast<const CorVaneIntfDesc *>(descPtr);
    if (uint32_t rc = checkDesc(s, desc, method); rc != 0)
        return rc;
    Registration reg{user, desc->num, method, desc, reinterpret_cast<CorVaneHandler>(a), b};
    for (Registration &r : regs) {
        if (r.user == reg.user && r.num == reg.num && r.method == reg.method) {
            r = reg;
            return 0;
        }
    }
    regs.push_back(reg);
    return 0;
}

// Holds a context on the list of those under delivery, so that responses
// sent under it reach the record of responses. Made with the lock held; its
// end takes the context back and adds the send's tally to the counters in
// the same locked section.
class LiveCtx {
public:
    LiveCtx(State &s, Tally &t, const Registration &to, void *sender)
        : s_(s), t_(t), ctx_{to.num, to.method, sender, to.user, s.liveCtx}
    {
        s.liveCtx = &ctx_;
    }
    LiveCtx(const LiveCtx &) = delete;
    LiveCtx &operator=(const LiveCtx &) = delete;
    ~LiveCtx()
    {
        Lock lk(s_.mutex);
        for (MsgCtx **p = &s_.liveCtx; *p != nullptr; p = &(*p)->next) {
            if (*p == &ctx_) {
                *p = ctx_.next;
                break;
            }
        }
        t_.flush(s_);
    }
    MsgCtx *get() { return &ctx_; }

private:
    State &s_;
    Tally &t_;
    MsgCtx ctx_;
};

// Unserialises one receiver's copy (taking it over), calls the receive
// function with the registered handler under ctx and releases the received
// body. Takes no lock.
uint32_t deliver(MsgCtx *ctx, const Row &row, const Registration &to, uint8_t *copy,
                 uint32_t len, Tally &t)
{
    void *rbody = nullptr;
    uint32_t size = len;
    uint32_t rc = row.unserialize != nullptr
                      ? row.unserialize(CORVANE_BODY_REQUEST, copy, &rbody, &size)
                      : QUIB_STUB_E_SERIALIZE;
    std::free(copy);
    count(t, &QuibStubStats::buffersFreed);
    if (rc != 0) {
        count(t, &QuibStubStats::failures);
        return rc;
    }
    if (rbody != nullptr)
        count(t, &QuibStubStats::bodiesTaken);
    if (CorVaneRecvFn recv = corVane_intfMethods(to.desc)[to.method].recv) {
        recv(ctx, rbody, to.handler, to.arg);
        count(t, &QuibStubStats::deliveries);
    }
    releaseBody(row, rbody, t);
    return 0;
}

// Takes the body over and serialises it. On success 0 is returned and the
// caller owns the serialised buffer (buf, len; buf is NULL when the
// serialiser gave none) and frees it with freeBuffer; the body is released
// in every case.
uint32_t takeAndSerialize(uint32_t injected, const Row &row, void *body, uint8_t *&buf,
                          uint32_t &len, Tally &t)
{
    if (body != nullptr)
        count(t, &QuibStubStats::bodiesTaken);
    if (!row.present || injected != 0) {
        releaseBody(row, body, t);
        return injected != 0 ? injected : QUIB_STUB_E_NO_TABLE;
    }
    buf = nullptr;
    len = 0;
    uint32_t rc = row.serialize != nullptr
                      ? row.serialize(CORVANE_BODY_REQUEST, body, &buf, &len)
                      : QUIB_STUB_E_SERIALIZE;
    releaseBody(row, body, t);
    if (rc != 0 || (buf == nullptr && len != 0)) {
        count(t, &QuibStubStats::failures);
        return QUIB_STUB_E_SERIALIZE;
    }
    if (buf != nullptr)
        count(t, &QuibStubStats::buffersTaken);
    else
        len = 0;
    return 0;
}

void freeBuffer(uint8_t *buf, Tally &t)
{
    if (buf == nullptr)
        return;
    std::free(buf);
    count(t, &QuibStubStats::buffersFreed);
}

// A heap block of exactly the serialised length, so that a read beyond it
// shows under a sanitizer.
uint8_t *exactCopy(const uint8_t *buf, uint32_t len, Tally &t)
{
    auto *copy = static_cast<uint8_t *>(std::malloc(len == 0 ? 1 : len));
    if (copy == nullptr)
        return nullptr;
    if (len != 0)
        std::memcpy(copy, buf, len);
    count(t, &QuibStubStats::buffersTaken);
    return copy;
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

}  // namespace

extern "C" {

// ---- tables ----------------------------------------------------------------

uint16_t quibCore_getBase_msgMngt(const char *name, QuibMsgMngtTable **table, uint16_t count)
{
    return guarded<uint16_t>(QUIB_NUM_NONE, [&]() -> uint16_t {
        State &s = st();
        Lock lk(s.mutex);
        uint32_t injected = enter(s, QUIB_STUB_GET_BASE, name, table, count);
        if (table == nullptr)
            return QUIB_NUM_NONE;
        *table = nullptr;
        if (injected == QUIB_STUB_NUM_WITHOUT_TABLE)
            return 1;
        if (injected != 0 || s.tables.size() >= QUIB_NUM_NONE - 1)
            return QUIB_NUM_NONE;
        auto *words = static_cast<QuibMsgMngtTable *>(
            std::calloc(1, sizeof(QuibMsgMngtTable) + size_t{count} * sizeof(QuibMsgMngtRow)));
        if (words == nullptr)
            return QUIB_NUM_NONE;
        // Numbers 1 .. 0xfffe, skipping those still in use after a wrap.
        uint16_t num = s.nextNum;
        while (s.tables.count(num) != 0)
            num = num >= QUIB_NUM_NONE - 1 ? 1 : num + 1;
        s.nextNum = num >= QUIB_NUM_NONE - 1 ? 1 : num + 1;
        s.tables[num] = Table{words, name != nullptr ? name : "", count};
        *table = words;
        return num;
    });
}

uint32_t quibCore_putBase_msgMngt(uint16_t num, uint32_t reserved)
{
    State &s = st();
    Lock lk(s.mutex);
    uint32_t injected = enter(s, QUIB_STUB_PUT_BASE, num, reserved);
    if (injected != 0)
        return injected;
    auto it = s.tables.find(num);
    if (it == s.tables.end())
        return QUIB_STUB_E_NO_TABLE;
    std::free(it->second.words);
    s.tables.erase(it);
    return 0;
}

// ---- users -----------------------------------------------------------------

uint32_t quibIntf_regUser_msgMngt(void *user, void *arg, void *ref, uint16_t num, uint16_t all,
                                  uint32_t reserved)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        State &s = st();
        Lock lk(s.mutex);
        uint32_t injected = enter(s, QUIB_STUB_REG_USER, user, arg, ref, num, all, reserved);
        if (injected != 0)
            return injected;
        for (const auto &r : s.userRegs)
            if (r.first == user && r.second == num)
                return 0;
        s.userRegs.emplace_back(user, num);
        return 0;
    });
}

uint32_t quibIntf_unregUser_msgMngt(void *user, uint16_t num, uint16_t all, uint32_t reserved)
{
    State &s = st();
    Lock lk(s.mutex);
    uint32_t injected = enter(s, QUIB_STUB_UNREG_USER, user, num, all, reserved);
    if (injected != 0)
        return injected;
    std::erase_if(s.userRegs, [&](const auto &r) { return r.first == user && r.second == num; });
    return 0;
}

void *quibIntf_getCore_user(void *user)
{
    State &s = st();
    Lock lk(s.mutex);
    (void)enter(s, QUIB_STUB_GET_CORE_USER, user);
    return user;
}

// ---- sending ---------------------------------------------------------------

// The server registered for (num, method) by the user of that name.
const Registration *serverOf(const State &s, uint16_t num, uint16_t method, const char *userName)
{
    if (userName == nullptr)
        return nullptr;
    for (const Registration &r : s.servers) {
        if (r.num != num || r.method != method)
            continue;
        auto u = s.users.find(r.user);
        if (u != s.users.end() && u->second->name == userName)
            return &r;
    }
    return nullptr;
}

uint32_t quibCore_sendMsgReq_toNameUser(void *coreUser, void *body, uint32_t r1, uint32_t r2,
                                        uint32_t r3, void *arg, const char *userName,
                                        uint16_t num, uint16_t method, uint16_t all,
                                        uint32_t prio)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        State &s = st();
        Tally tally;
        Row row;
        uint32_t injected;
        Registration to = {};
        // The server's context is live from here to the end of the send: a
        // request then takes the lock twice, here and when it is over.
        std::optional<LiveCtx> live;
        {
            Lock lk(s.mutex);
            injected = enter(s, QUIB_STUB_SEND_REQ, coreUser, body, r1, r2, r3, arg, userName,
                             num, method, all, prio);
            row = rowOf(s, num, method);
            if (const Registration *server = serverOf(s, num, method, userName)) {
                to = *server;
                live.emplace(s, tally, to, coreUser);
            }
        }
        uint8_t *buf;
        uint32_t len;
        uint32_t rc = takeAndSerialize(injected, row, body, buf, len, tally);
        if (rc != 0)
            return rc;
        uint8_t *copy = exactCopy(buf, len, tally);
        freeBuffer(buf, tally);
        if (copy == nullptr)
            return CORVANE_E_NOMEM;
        if (!live) {
            std::free(copy);
            count(tally, &QuibStubStats::buffersFreed);
            return QUIB_STUB_E_NO_SERVER;
        }
        count(tally, &QuibStubStats::requestsSent);
        return deliver(live->get(), row, to, copy, len, tally);
    });
}

uint32_t quibIntf_sendReq_ntfy(void *user, void *body, uint32_t r1, uint32_t r2, uint32_t r3,
                               void *dest1, void *dest2, const char *baseName, uint16_t num,
                               uint16_t method, uint32_t r4, uint32_t r5, uint32_t prio)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        State &s = st();
        Tally tally;
        Row row;
        uint32_t injected;
        {
            Lock lk(s.mutex);
            injected = enter(s, QUIB_STUB_SEND_NTFY, user, body, r1, r2, r3, dest1, dest2,
                             baseName, num, method, r4, r5, prio);
            row = rowOf(s, num, method);
        }
        uint8_t *buf;
        uint32_t len;
        uint32_t rc = takeAndSerialize(injected, row, body, buf, len, tally);
        if (rc != 0)
            return rc;

        // The receivers are copied out, so that handlers may change the
        // registrations; a few fit on the stack.
        constexpr size_t kFew = 4;
        Registration few[kFew];
        std::vector<Registration> many;
        size_t n = 0;
        {
            Lock lk(s.mutex);
            count(tally, &QuibStubStats::notificationsSent);
            for (const Registration &r : s.subscribers) {
                if (r.num != num || r.method != method)
                    continue;
                if (n < kFew) {
                    few[n] = r;
                } else {
                    if (n == kFew)
                        many.assign(few, few + kFew);
                    many.push_back(r);
                }
                ++n;
            }
        }
        const Registration *to = n <= kFew ? few : many.data();
        uint32_t first = 0;
        for (size_t i = 0; i < n; ++i) {
            uint8_t *copy = exactCopy(buf, len, tally);
            if (copy == nullptr) {
                rc = CORVANE_E_NOMEM;
            } else {
                std::optional<LiveCtx> live;
                {
                    Lock lk(s.mutex);
                    live.emplace(s, tally, to[i], user);
                }
                rc = deliver(live->get(), row, to[i], copy, len, tally);
            }
            if (first == 0)
                first = rc;
        }
        freeBuffer(buf, tally);
        return first;
    });
}

uint32_t quibCore_sendMsgRes(void *ctx, void *body, uint32_t status, uint32_t prio)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        State &s = st();
        Lock lk(s.mutex);
        uint32_t injected = enter(s, QUIB_STUB_SEND_RES, ctx, body, status, prio);
        if (injected != 0)
            return injected;
        QuibStubResponse res = {QUIB_NUM_NONE, QUIB_NUM_NONE, status, prio};
        auto *known = static_cast<const MsgCtx *>(ctx);
        if (isLive(s, known)) {
            res.num = known->num;
            res.method = known->method;
        }
        s.responses.push_back(res);
        return 0;
    });
}

// ---- servers and subscribers -----------------------------------------------

uint32_t quibIntf_modSrv_mthd(void *user, void *a, void *b, void *c, uint32_t key,
                              const char *baseName, const void *cmdDesc, const void *ntfyDesc,
                              uint16_t method, uint16_t all1, uint16_t all2)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        State &s = st();
        Lock lk(s.mutex);
        uint32_t injected = enter(s, QUIB_STUB_MOD_SRV, user, a, b, c, key, baseName, cmdDesc,
                                  ntfyDesc, method, all1, all2);
        if (injected != 0)
            return injected;
        return enroll(s, s.servers, user, cmdDesc, method, a, b);
    });
}

uint32_t quibIntf_modSrv_ntfy_needUpdate(void *user, void *a, void *b, void *c,
                                         const char *baseName, const void *cmdDesc,
                                         const void *ntfyDesc, uint16_t method)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        State &s = st();
        Lock lk(s.mutex);
        uint32_t injected = enter(s, QUIB_STUB_NEED_UPDATE, user, a, b, c, baseName, cmdDesc,
                                  ntfyDesc, method);
        if (injected != 0)
            return injected;
        auto *desc = static_cast<const CorVaneIntfDesc *>(ntfyDesc);
        if (uint32_t rc = checkDesc(s, desc, method); rc != 0)
            return rc;
        for (const UpdateNeed &u : s.updates)
            if (u.user == user && u.num == desc->num && u.method == method)
                return 0;
        s.updates.push_back(UpdateNeed{user, desc->num, method});
        return 0;
    });
}

uint32_t quibIntf_modCliNtfyUser_mthd(void *user, void *a, void *b, void *c, uint32_t key,
                                      const char *busName, const char *userName,
                                      const char *baseName, const void *cmdDesc,
                                      const void *ntfyDesc, uint16_t method)
{
    return guarded<uint32_t>(CORVANE_E_NOMEM, [&]() -> uint32_t {
        State &s = st();
        Lock lk(s.mutex);
        uint32_t injected = enter(s, QUIB_STUB_MOD_CLI, user, a, b, c, key, busName, userName,
                                  baseName, cmdDesc, ntfyDesc, method);
        if (injected != 0)
            return injected;
        return enroll(s, s.subscribers, user, ntfyDesc, method, a, b);
    });
}

void *quibIntf_findSrvMthdNtfyUser(void *a, void *b, const char *baseName, uint16_t method,
                                   void *d)
{
    State &s = st();
    Lock lk(s.mutex);
    (void)enter(s, QUIB_STUB_FIND, a, b, baseName, method, d);
    return a;
}

// ---- event loop ------------------------------------------------------------

uint32_t ranq_addEvtBase(RanqEvtFn callback, void *ctx)
{
    State &s = st();
    Lock lk(s.mutex);
    uint32_t injected = enter(s, QUIB_STUB_ADD_EVT, callback, ctx);
    if (injected != 0)
        return injected;
    s.evtFn = callback;
    s.evtCtx = ctx;
    return 0;
}

int ranqStub_deliver(int32_t event)
{
    State &s = st();
    RanqEvtFn fn;
    void *ctx;
    {
        Lock lk(s.mutex);
        fn = s.evtFn;
        ctx = s.evtCtx;
    }
    if (fn == nullptr)
        return -1;
    fn(ctx, event);
    return 0;
}

// ---- control ---------------------------------------------------------------

void *quibStub_newUser(const char *name)
{
    return guarded<void *>(nullptr, [&]() -> void * {
        State &s = st();
        auto user = std::make_unique<User>(User{name != nullptr ? name : ""});
        void *handle = user.get();
        Lock lk(s.mutex);
        s.users.emplace(handle, std::move(user));
        return handle;
    });
}

void quibStub_reset(void)
{
    State &s = st();
    Lock lk(s.mutex);
    for (auto &t : s.tables)
        std::free(t.second.words);
    s.tables.clear();
    s.nextNum = 1;
    s.users.clear();
    s.userRegs.clear();
    s.servers.clear();
    s.subscribers.clear();
    s.updates.clear();
    s.responses.clear();
    s.liveCtx = nullptr;
    std::memset(s.failures, 0, sizeof s.failures);
    std::memset(s.records, 0, sizeof s.records);
    s.stats = {};
    s.evtFn = nullptr;
    s.evtCtx = nullptr;
}

void quibStub_setFailure(QuibStubCall call, uint32_t code, uint32_t after)
{
    if (call < 0 || call >= QUIB_STUB_CALL_COUNT || call == QUIB_STUB_GET_CORE_USER ||
        call == QUIB_STUB_FIND)
        return;
    State &s = st();
    Lock lk(s.mutex);
    s.failures[call] = Failure{code, code != 0 ? after : 0};
}

const QuibStubCallRecord *quibStub_lastCall(QuibStubCall call)
{
    static const QuibStubCallRecord none = {};
    if (call < 0 || call >= QUIB_STUB_CALL_COUNT)
        return &none;
    return &st().records[call];
}

QuibMsgMngtTable *quibStub_table(uint16_t num, uint16_t *count)
{
    State &s = st();
    Lock lk(s.mutex);
    auto it = s.tables.find(num);
    if (it == s.tables.end()) {
        if (count != nullptr)
            *count = 0;
        return nullptr;
    }
    if (count != nullptr)
        *count = it->second.count;
    return it->second.words;
}

uint32_t quibStub_dropTable(uint16_t num)
{
    State &s = st();
    QuibFn unreg;
    {
        Lock lk(s.mutex);
        auto it = s.tables.find(num);
        if (it == s.tables.end())
            return QUIB_STUB_E_NO_TABLE;
        unreg = it->second.words->unreg;
    }
    if (unreg != nullptr)
        reinterpret_cast<CorVaneUnregFn>(unreg)(num);
    return 0;
}

int quibStub_isRegistered(void *user, uint16_t num)
{
    State &s = st();
    Lock lk(s.mutex);
    for (const auto &r : s.userRegs)
        if (r.first == user && r.second == num)
            return 1;
    return 0;
}

int quibStub_needsUpdate(void *user, uint16_t num, uint16_t method)
{
    State &s = st();
    Lock lk(s.mutex);
    for (const UpdateNeed &u : s.updates)
        if (u.user == user && u.num == num && u.method == method)
            return 1;
    return 0;
}

const QuibStubResponse *quibStub_responses(size_t *count)
{
    State &s = st();
    Lock lk(s.mutex);
    if (count != nullptr)
        *count = s.responses.size();
    return s.responses.empty() ? nullptr : s.responses.data();
}

void quibStub_stats(QuibStubStats *out)
{
    if (out == nullptr)
        return;
    State &s = st();
    Lock lk(s.mutex);
    *out = s.stats;
}

}  // extern "C"
