// The event loop of the D-Bus middleware: sd-event, with every user's bus
// connection attached to it. ranq_addEvtBase only keeps the base's callback;
// ranqDbus_run calls it with event 0 once the loop is over. A lost
// connection ends the loop only under ranqDbus_exitOnBusLoss(1); otherwise
// the middleware makes it again from the loop (connection.cpp).

#include "api.h"

#include <errno.h>
#include <signal.h>

#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "loop.h"

namespace quibdbus {
namespace {

struct Loop {
    sd_event *event = nullptr;
    std::vector<std::pair<RanqEvtFn, void *>> bases;
    bool stop = false;
    bool lost = false;
    bool exitOnLoss = false;
};

// Never destroyed: a base may still be torn down while the process exits.
Loop &loop()
{
    static Loop *const l = new Loop;
    return *l;
}

struct Job {
    sd_event_source *source;
    void (*fn)(void *);
    void *arg;
};

int runJob(Job *job)
{
    job->fn(job->arg);
    sd_event_source_disable_unref(job->source);
    delete job;
    return 0;
}

int onTimer(sd_event_source *, uint64_t, void *userdata)
{
    return runJob(static_cast<Job *>(userdata));
}

int onDefer(sd_event_source *, void *userdata)
{
    return runJob(static_cast<Job *>(userdata));
}

struct Later {
    sd_event_source *source;
    std::function<void()> fn;
};

int onLater(sd_event_source *, void *userdata)
{
    std::unique_ptr<Later> job(static_cast<Later *>(userdata));
    sd_event_source_disable_unref(job->source);
    try {
        job->fn();
    } catch (...) {
        // Out of memory in a deferred step: it is dropped, nothing thrown
        // crosses into sd-event.
    }
    return 0;
}

int onSignal(sd_event_source *, const struct signalfd_siginfo *, void *)
{
    loop().stop = true;
    return 0;
}

// Runs the loop until stopped, a connection is lost or the deadline (an
// absolute CLOCK_MONOTONIC time in microseconds; 0 for none) has passed.
// With `signals`, SIGINT and SIGTERM stop it too.
int runLoop(uint64_t deadline, bool signals)
{
    Loop &l = loop();
    sd_event *e = loopEvent();
    if (e == nullptr)
        return -ENOMEM;
    sd_event_source *sources[2] = {};
    sigset_t blocked, saved;
    if (signals) {
        // sd-event takes signals through a signalfd, which needs them blocked.
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGINT);
        sigaddset(&blocked, SIGTERM);
        sigprocmask(SIG_BLOCK, &blocked, &saved);
        sd_event_add_signal(e, &sources[0], SIGINT, onSignal, nullptr);
        sd_event_add_signal(e, &sources[1], SIGTERM, onSignal, nullptr);
    }
    l.stop = false;
    int r = 0;
    while (!l.stop && !l.lost) {
        uint64_t wait = UINT64_MAX;
        if (deadline != 0) {
            uint64_t now = 0;
            sd_event_now(e, CLOCK_MONOTONIC, &now);
            if (now >= deadline)
                break;
            wait = deadline - now;
        }
        r = sd_event_run(e, wait);
        if (r < 0)
            break;
        r = 0;
    }
    if (signals) {
        for (sd_event_source *s : sources)
            sd_event_source_disable_unref(s);
        sigprocmask(SIG_SETMASK, &saved, nullptr);
    }
    if (r == 0 && l.lost)
        r = -ENOTCONN;
    return r;
}

}  // namespace

sd_event *loopEvent()
{
    Loop &l = loop();
    if (l.event == nullptr && sd_event_default(&l.event) < 0)
        l.event = nullptr;
    return l.event;
}

int later(std::function<void()> fn)
{
    sd_event *e = loopEvent();
    if (e == nullptr)
        return -ENOMEM;
    auto *job = new (std::nothrow) Later{nullptr, std::move(fn)};
    if (job == nullptr)
        return -ENOMEM;
    const int r = sd_event_add_defer(e, &job->source, onLater, job);
    if (r < 0)
        delete job;
    return r < 0 ? r : 0;
}

bool exitOnLoss()
{
    return loop().exitOnLoss;
}

void connectionLost()
{
    loop().lost = true;
}

}  // namespace quibdbus

using quibdbus::loop;

extern "C" {

uint32_t ranq_addEvtBase(RanqEvtFn callback, void *ctx)
{
    try {
        loop().bases.emplace_back(callback, ctx);
        return 0;
    } catch (const std::bad_alloc &) {
        return 5;  // the library's "allocation failure"
    }
}

int ranqDbus_run(void)
{
    const int r = quibdbus::runLoop(0, true);
    // Event 0 deletes a base; each base is told once.
    std::vector<std::pair<RanqEvtFn, void *>> bases;
    bases.swap(loop().bases);
    for (const auto &[fn, ctx] : bases)
        if (fn != nullptr)
            fn(ctx, 0);
    return r;
}

int ranqDbus_runFor(uint32_t ms)
{
    sd_event *e = quibdbus::loopEvent();
    if (e == nullptr)
        return -ENOMEM;
    uint64_t now = 0;
    sd_event_now(e, CLOCK_MONOTONIC, &now);
    return quibdbus::runLoop(now + uint64_t{ms} * 1000 + 1, false);
}

void ranqDbus_stop(void)
{
    loop().stop = true;
}

void ranqDbus_exitOnBusLoss(int exit)
{
    loop().exitOnLoss = exit != 0;
}

int ranqDbus_schedule(uint32_t ms, void (*fn)(void *arg), void *arg)
{
    sd_event *e = quibdbus::loopEvent();
    if (e == nullptr)
        return -ENOMEM;
    if (fn == nullptr)
        return -EINVAL;
    auto *job = new (std::nothrow) quibdbus::Job{nullptr, fn, arg};
    if (job == nullptr)
        return -ENOMEM;
    // Accuracy of 1 us: the default lets sd-event move a timer by up to 250 ms.
    const int r = ms == 0 ? sd_event_add_defer(e, &job->source, quibdbus::onDefer, job)
                          : sd_event_add_time_relative(e, &job->source, CLOCK_MONOTONIC,
                                                       uint64_t{ms} * 1000, 1,
                                                       quibdbus::onTimer, job);
    if (r < 0)
        delete job;
    return r < 0 ? r : 0;
}

}  // extern "C"
