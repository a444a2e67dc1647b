// What the tests of corvane on a private bus share (bus_verbs_test.cpp,
// capture_test.cpp): the fixture, skipped when a program it needs is not
// installed (a failure with CORVANE_REQUIRE_DBUS, as tools/ci/52-cli.sh
// sets it), and the daemons' sample payloads as JSON.
#pragma once

#include <gtest/gtest.h>

#include <sstream>

#include "inspect.h"
#include "support/private_bus.h"
extern "C" {
#include "sim.h"  // the daemons' sample payloads
}

class OnTheBus : public ::testing::Test, protected cvtest::PrivateBus {
protected:
    // What the tests need besides dbus-daemon.
    std::vector<const char*> tools_;

    void SetUp() override {
        tools_.push_back("/usr/bin/dbus-daemon");
        for (const char* tool : tools_) {
            if (access(tool, X_OK) == 0) continue;
            if (std::getenv("CORVANE_REQUIRE_DBUS")) FAIL() << tool << " is not installed";
            GTEST_SKIP() << tool << " is not installed (packages dbus-daemon, dbus-bin, systemd, tshark)";
        }
        ASSERT_TRUE(open("corvane-cli"));
    }
    // corvane on this bus, started and waited for until it says `ready`.
    cvtest::Proc* corvane(std::vector<std::string> args, const std::string& ready = "") {
        args.insert(args.begin(), {CORVANE_EXE, "--bus", address});
        return spawn(std::move(args), ready);
    }
    // corvane run to its end.
    Outcome corvaneRun(std::vector<std::string> args) {
        args.insert(args.begin(), {CORVANE_EXE, "--bus", address});
        return run(std::move(args));
    }
};

// The sample payload the daemons send of a message, as JSON: a receiving
// daemon says whether it got exactly that.
inline cvi::Json sample(const CorVaneMessageInfo& m) {
    void* p = sim_newSample(&m);
    const cvi::Json j = cvi::recordToJson(*m.payload, p);
    std::free(p);
    return j;
}

// One JSON object a line.
inline std::vector<cvi::Json> jsonLines(const std::string& text) {
    std::vector<cvi::Json> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        if (!l.empty()) out.push_back(cvi::Json::parse(l));
    return out;
}
