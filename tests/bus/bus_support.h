// What the bus tests share (bus_test.cpp, survive_test.cpp): the fixture
// that starts a private dbus-daemon with this process on it as a user, and
// the daemons of examples/ beside it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/private_bus.h"
#include "support/raw_bus.h"
#include "support/syslog_capture.h"

namespace bustest {

using namespace cvtest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The user name of this process on the bus: a leading digit and every byte
// but [A-Za-z0-9] are escaped there.
inline constexpr const char *kSelf = "1_test-\xc3\xa9";
inline const std::string kSelfOnTheBus = "org.corvane.user._31_5ftest_2d_c3_a9";
inline const std::string kMgmt = "org.corvane.user.mgmt";

inline const lineCallState kCallState = {1, 2, 3};

class Bus : public ::testing::Test, protected PrivateBus {
protected:
    static void SetUpTestSuite()
    {
        static const uint32_t initialized = corvane_initialize();  // once per process
        ASSERT_EQ(initialized, 0u);
    }

    void *self = nullptr;  // this process on the bus: kSelf

    void SetUp() override
    {
        ASSERT_TRUE(open("corvane-bus"));
        uint32_t status = 1;
        self = quibDbus_newUser(kSelf, address.c_str(), &status);
        ASSERT_EQ(status, 0u);
        quibDbus_setTimeout(0);
    }
    void TearDown() override { quibDbus_freeUser(self); }
    // The management daemon under that user name, serving.
    Proc *mgmt(const std::string &name, std::vector<std::string> args = {})
    {
        args.insert(args.begin(), {MGMT_SIM, "--bus", address, "--name", name});
        return spawn(args, "serving 19 commands");
    }
    // The voice daemon, subscribed (and its commands to `to`).
    Proc *voice(std::vector<std::string> args = {})
    {
        args.insert(args.begin(), {VOICE_SIM, "--bus", address});
        return spawn(args, "subscribed");
    }
};

inline uint32_t sendCallState(void *user, const char *to)
{
    return corVane_sendReq_setLineCallState(user, nullptr, to, &kCallState);
}

inline std::string credsOfThisProcess()
{
    return " (pid " + std::to_string(getpid()) + ", uid " + std::to_string(getuid()) + ")";
}

inline size_t loggedLines(const std::string &text)
{
    size_t n = 0;
    for (const auto &l : cvtest::logLines())
        n += l.text.find(text) != std::string::npos;
    return n;
}

}  // namespace bustest
