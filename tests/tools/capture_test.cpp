// Captures of the two daemons exchanging all 49 messages on a private
// dbus-daemon, made at once by corvane capture, busctl capture and
// dbus-monitor --pcap: tshark reads each file; corvane decode shows every
// message with the daemons' sample payload (the senders by user name and
// process id where the capture says them) and each answer's status;
// tshark -V with the generated dissector shows, frame for frame, the same
// fields and values as corvane decode --json; a body cut short is marked
// where decoding stopped; files cut anywhere give one line (the dumps the
// tools print of one message: data/, read in capture_format_test.cpp).
// Then --count, --timeout and SIGTERM end a capture and a monitor.
// Every wait is bounded; every process started here is stopped by its pid.
#include <chrono>
#include <functional>
#include <map>
#include <regex>

#include "on_bus.h"

namespace {

using Clock = std::chrono::steady_clock;
using cvi::Json;
using cvtest::Proc;
using cvtest::slurp;
using cvtest::waitUntil;

class Captures : public OnTheBus {
protected:
    void SetUp() override {
        tools_ = {"/usr/bin/dbus-send", "/usr/bin/dbus-monitor", "/usr/bin/busctl", "/usr/bin/tshark"};
        OnTheBus::SetUp();
    }
    Outcome tshark(std::vector<std::string> args) {
        args.insert(args.begin(), {"/usr/bin/tshark", "-X", "lua_script:" CORVANE_LUA});
        return run(std::move(args));
    }
    // The messages corvane decode finds in a capture file.
    size_t messagesIn(const std::string& file) {
        const std::string out = corvaneRun({"--json", "decode", file}).out;
        return static_cast<size_t>(std::count(out.begin(), out.end(), '\n'));
    }
    // A signal no monitor filters out, a new one each time, sent until every
    // watcher has it (one that says nothing when it starts may miss the first).
    void probe(const std::vector<Proc*>& watchers) {
        const std::string member = "Ready" + std::to_string(++probes_);
        EXPECT_TRUE(waitUntil(
            [&] {
                run({"/usr/bin/dbus-send", "--bus=" + address, "/probe", "org.example.Probe." + member});
                return std::all_of(watchers.begin(), watchers.end(),
                                   [&](Proc* w) { return w->stdout_().find(member) != std::string::npos; });
            },
            5000));
    }
    int probes_ = 0;
};

// tshark -V -O corvane, read back: each frame's corvane tree as the object
// corvane decode --json prints (type, method, status, payload), with the
// expert lines under "experts".
struct Node {
    std::string text;
    std::vector<Node> children;
};

std::string unescaped(const std::string& quoted) {
    std::string out;
    for (size_t i = 1; i + 1 < quoted.size(); ++i) {
        if (quoted[i] != '\\') {
            out += quoted[i];
        } else if (quoted[i + 1] == 'x') {
            out += static_cast<char>(std::stoi(quoted.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            out += quoted[++i];
        }
    }
    return out;
}

Json recordOf(const Node& n) {
    static const std::regex leaf(R"(^(\w+) = (".*"|\d+)(?: \(0x[0-9a-f]+\))?$)");
    static const std::regex array(R"(^(\w+): \d+ of \d+ \w+$)");
    static const std::regex nested(R"(^(\w+): \w+$)");
    Json j = Json::object();
    for (const Node& c : n.children) {
        std::smatch m;
        if (std::regex_match(c.text, m, leaf)) {
            const std::string v = m[2];
            j[m[1].str()] = v[0] == '"' ? Json(unescaped(v)) : Json(std::stoull(v));
        } else if (std::regex_match(c.text, m, array)) {
            Json a = Json::array();
            for (const Node& e : c.children) a.push_back(recordOf(e));
            j[m[1].str()] = a;
        } else if (std::regex_match(c.text, m, nested)) {
            j[m[1].str()] = recordOf(c);
        } else {
            j["<unread>"].push_back(c.text);
        }
    }
    return j;
}

std::map<uint64_t, Json> dissected(const std::string& text) {
    std::map<uint64_t, Json> frames;
    uint64_t frame = 0;
    std::vector<Node*> stack;  // the corvane tree of the frame, by depth
    Node root;
    auto flush = [&] {
        if (frame == 0 || root.text.empty()) return;
        Json j = Json::object();
        for (const Node& c : root.children) {
            const size_t colon = c.text.find(": ");
            const std::string key = c.text.substr(0, colon), value = c.text.substr(colon + 2);
            if (key == "Type") j["type"] = value;
            if (key == "Method") j["method"] = value;
            if (key == "Status") j["status"] = std::stoul(value);
            if (key == "Payload") j["payload"] = recordOf(c);
        }
        std::function<void(const Node&)> experts = [&](const Node& n) {
            if (n.text.rfind("[Expert Info", 0) == 0) j["experts"].push_back(n.text);
            for (const Node& c : n.children) experts(c);
        };
        experts(root);
        frames[frame] = j;
        root = Node{};
    };
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) {
        const size_t indent = l.find_first_not_of(' ');
        if (indent == 0) {
            stack.clear();
            if (l.rfind("Frame ", 0) == 0) {
                flush();
                frame = std::stoull(l.substr(6));
            } else if (l.rfind("corvane: ", 0) == 0) {
                root.text = l;
                stack.push_back(&root);
            }
            continue;
        }
        if (stack.empty() || indent == std::string::npos) continue;
        const size_t depth = indent / 4;
        if (depth > stack.size()) continue;  // under an item left out
        stack.resize(depth);
        stack.back()->children.push_back(Node{l.substr(indent), {}});
        stack.push_back(&stack.back()->children.back());
    }
    flush();
    return frames;
}

// The decode --json objects of a capture, by frame, and the summary.
struct Decoded {
    std::map<uint64_t, Json> frames;
    Json summary;
};

TEST_F(Captures, AllMessagesReadBackByTsharkCorvaneAndTheDissector) {
    // The monitors first: busctl's and dbus-monitor's files learn who is
    // who from the users' names changing hands.
    const std::string ours = dir + "/corvane.pcapng";
    Proc* capture = corvane({"capture", "-o", ours}, "capturing");
    Proc* busctl = spawn({"/usr/bin/busctl", "--address=" + address, "capture"}, "Monitoring");
    Proc* pcap = spawn({"/usr/bin/dbus-monitor", "--address", address, "--pcap"}, "");
    probe({busctl, pcap});

    Proc* mgmt = spawn({MGMT_SIM, "--bus", address}, "serving 19 commands");
    Proc* voice = spawn({VOICE_SIM, "--bus", address, "--once"}, "");
    ASSERT_EQ(voice->wait(), 0) << voice->stdout_() << voice->stderr_();
    // A body cut inside value2's element header, and a payload mostly zero.
    const cvi::Encoded cut = cvi::encodeBody(*corVane_messageByName("SetLineCallState"), Json::object());
    std::string bytes = "array:byte:";
    for (size_t i = 0; i < 40; ++i) bytes += std::to_string(cut.bytes[i]) + (i < 39 ? "," : "");
    const Outcome refused = run({"/usr/bin/dbus-send", "--bus=" + address, "--print-reply",
                             "--dest=org.corvane.user.mgmt", "/org/corvane/CorVaneCmd",
                             "org.corvane.CorVaneCmd.SetLineCallState", bytes});
    EXPECT_NE(refused.out.find("uint32 4"), std::string::npos) << refused.out << refused.err;
    // A notification goes to each subscriber: one is there for the emit (the
    // management daemon pushes it its 14 with a need for updates).
    Proc* listener = spawn({VOICE_SIM, "--bus", address, "--name", "listener", "--to", "late"}, "subscribed");
    EXPECT_TRUE(waitUntil([&] { return messagesIn(ours) == 84; }, 5000));
    EXPECT_EQ(corvaneRun({"emit", "OnAddObjectVoiceProfile", R"({"profileValue4":2})"}).status, 0);
    probe({busctl, pcap});
    EXPECT_TRUE(waitUntil([&] { return messagesIn(ours) == 85; }, 5000));
    listener->stop(SIGTERM);

    EXPECT_EQ(capture->stop(SIGINT), 0) << capture->stderr_();
    EXPECT_TRUE(std::regex_search(capture->stderr_(), std::regex("corvane: 85 messages captured \\(\\d+ packets\\) to ")))
        << capture->stderr_();
    for (Proc* p : {busctl, pcap}) p->stop(SIGTERM);
    const std::string theirs = busctl->out, monitors = pcap->out;

    // decode --json of each file, by frame.
    auto decode = [&](const std::string& file) {
        const Outcome r = corvaneRun({"--json", "decode", file});
        EXPECT_EQ(r.status, 0) << file << ": " << r.err;
        Decoded d;
        for (const Json& j : jsonLines(r.out)) d.frames[j["frame"].get<uint64_t>()] = j;
        const std::vector<Json> summary = jsonLines(r.err);
        EXPECT_EQ(summary.size(), 1u) << r.err;
        if (!summary.empty()) d.summary = summary.back();
        return d;
    };
    const std::map<std::string, Decoded> files = {
        {"corvane capture", decode(ours)}, {"busctl capture", decode(theirs)}, {"dbus-monitor --pcap", decode(monitors)}};
    for (const auto& [tool, d] : files) {
        SCOPED_TRACE(tool);
        const std::string file = tool == "corvane capture" ? ours : tool == "busctl capture" ? theirs : monitors;
        const Outcome read = run({"/usr/bin/tshark", "-r", file});
        EXPECT_EQ(read.status, 0) << read.err;
        EXPECT_GE(std::count(read.out.begin(), read.out.end(), '\n'), 70);
        EXPECT_EQ(d.summary["messages"], 85) << d.summary;  // 49 and 19 answers, the cut body and its answer, 14 pushed to the listener, the zeros
        // Every message with the sample payload (or, cut by busctl's
        // snapshot length, said so), every command answered 0.
        std::map<std::string, Json> sent;
        std::map<std::pair<std::string, uint64_t>, std::string> calls;
        for (const auto& [frame, j] : d.frames) {
            if (j["type"] == "return") {
                const std::pair<std::string, uint64_t> call{j["destination_bus_name"], j["reply_serial"]};
                EXPECT_EQ(calls[call], j["method"]) << j;
                if (j["method"] != "SetLineCallState" || j["status"] != 4) {
                    EXPECT_EQ(j["status"], 0) << j;
                }
                continue;
            }
            if (j["type"] == "call") calls[{j["sender_bus_name"], j["serial"]}] = j["method"];
            if (j["sender"] == "voice" || j["sender"] == "mgmt") sent[j["method"]] = j;
        }
        for (const CorVaneMessageInfo* m : cvi::allMessages()) {
            SCOPED_TRACE(m->name);
            const Json& j = sent[m->name];
            ASSERT_FALSE(j.is_null());
            EXPECT_EQ(j["sender"], m->intf == CORVANE_INTF_CMD ? "voice" : "mgmt");
            if (j.contains("captured_bytes")) {  // busctl capture keeps 4096 bytes of a message
                EXPECT_EQ(tool, "busctl capture");
                EXPECT_GT(j["bytes"].get<uint64_t>(), 4000u);
                continue;
            }
            EXPECT_EQ(j["payload"], sample(*m));
            if (tool == "corvane capture") {
                const Json& daemon = j[m->intf == CORVANE_INTF_CMD ? "destination_pid" : "sender_pid"];
                EXPECT_EQ(daemon, mgmt->pid) << j;
            }
        }
    }

    // The dissector shows what decode shows, field for field, in every frame
    // both show; and nothing where decode shows nothing.
    for (const std::string& file : {ours, theirs}) {
        SCOPED_TRACE(file);
        const Outcome v = tshark({"-r", file, "-V", "-O", "corvane"});
        EXPECT_EQ(v.status, 0) << v.err;
        EXPECT_EQ(v.out.find("Lua Error"), std::string::npos);
        const std::map<uint64_t, Json> tree = dissected(v.out);
        const Decoded& d = files.at(file == ours ? "corvane capture" : "busctl capture");
        size_t compared = 0;
        for (const auto& [frame, j] : d.frames) {
            SCOPED_TRACE("frame " + std::to_string(frame) + " " + j["method"].get<std::string>());
            ASSERT_TRUE(tree.count(frame)) << j;
            const Json& t = tree.at(frame);
            EXPECT_EQ(t["type"], j["type"]);
            EXPECT_EQ(t["method"], j["method"]);
            if (j.contains("status")) {
                EXPECT_EQ(t["status"], j["status"]);
            }
            if (j.contains("payload")) {
                EXPECT_EQ(t["payload"], j["payload"]);
                ++compared;
            } else {
                EXPECT_FALSE(t.contains("payload") && !t.contains("experts")) << t;
            }
        }
        EXPECT_GE(compared, file == ours ? 50u : 46u);  // busctl cut the larger bodies
        EXPECT_EQ(tree.size(), d.frames.size());
    }

    // The cut body: decode and the dissector stop at the same element.
    const auto& ourFrames = files.at("corvane capture").frames;
    const auto hostile = std::find_if(ourFrames.begin(), ourFrames.end(),
                                      [](const auto& f) { return f.second.contains("decode_error"); });
    ASSERT_NE(hostile, ourFrames.end());
    EXPECT_EQ(hostile->second["decode_error"]["stopped_at"], 36);
    const Outcome one = tshark({"-r", ours, "-V", "-O", "corvane", "-Y", "frame.number == " + std::to_string(hostile->first)});
    EXPECT_NE(one.out.find("[Expert Info (Error/Malformed): stopped at offset 36: expected tag 4 value2 (u32), "
                           "no complete element header: an element header runs past the end of the body"),
              std::string::npos)
        << one.out;

    // Fields by name in display filters.
    const Json callState = sample(*corVane_messageByName("SetLineCallState"));
    Outcome f = tshark({"-r", ours, "-Y", "corvane.method == \"SetLineCallState\" && corvane.value1 == " +
                                        std::to_string(callState["value1"].get<uint32_t>()),
                    "-T", "fields", "-e", "corvane.value2"});
    EXPECT_EQ(f.out, std::to_string(callState["value2"].get<uint32_t>()) + "\n") << f.err;
    f = tshark({"-r", ours, "-Y", "corvane.malformed", "-T", "fields", "-e", "frame.number"});
    EXPECT_EQ(f.out, std::to_string(hostile->first) + "\n");

    // The mostly zero payload, folded in decode's text, whole with --all.
    const Outcome text = corvaneRun({"decode", ours});
    EXPECT_NE(text.out.find("  profileValue4 = 2\n  profileValue5 .. profileValue33: all 29 zero or empty\n"),
              std::string::npos);
    EXPECT_EQ(corvaneRun({"decode", "--all", ours}).out.find(" zero or empty"), std::string::npos);
    EXPECT_TRUE(std::regex_search(text.out, std::regex("(^|\n)frame \\d+, \\d\\d:\\d\\d:\\d\\d\\.\\d{6}: call "
                                                       "SetLineCallState voice\\[\\d+\\] -> mgmt\\[" +
                                                       std::to_string(mgmt->pid) + "\\], serial \\d+, 60 bytes\n")))
        << text.out.substr(0, 2000);

    // Cut anywhere: what came before, then one line; the dissector copes.
    const std::string whole = slurp(ours);
    for (const size_t n : {size_t{10}, whole.size() / 2 + 3, whole.size() - 5}) {
        SCOPED_TRACE(n);
        const std::string part = dir + "/cut.pcapng";
        cvtest::writeFile(part, whole.substr(0, n));
        const Outcome r = corvaneRun({"decode", part});
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(std::regex_match(r.err, std::regex("corvane: [^\n]*cut.pcapng: a damaged pcapng capture: [^\n]*cut short[^\n]*\n")))
            << r.err;
        const Outcome t = tshark({"-r", part, "-V"});
        EXPECT_LT(t.status, 128);
        EXPECT_EQ(t.out.find("Lua Error"), std::string::npos);
    }
}

TEST_F(Captures, CountTimeoutAndSignalsEndAWatchWithAWholeFile) {
    const std::string counted = dir + "/count.pcapng", idle = dir + "/idle.pcapng",
                      stopped = dir + "/stopped.pcapng";
    spawn({MGMT_SIM, "--bus", address}, "serving 19 commands");
    Proc* three = corvane({"capture", "--count", "3", "-o", counted}, "capturing");
    Proc* monitor = corvane({"--json", "monitor", "--count", "2", "SetLineStats"}, "monitoring");
    Proc* term = corvane({"capture", "-o", stopped}, "capturing");
    const auto t0 = Clock::now();
    const Outcome timedOut = corvaneRun({"capture", "--timeout", "300", "-o", idle});
    EXPECT_EQ(timedOut.status, 0) << timedOut.err;
    EXPECT_LT(Clock::now() - t0, std::chrono::seconds(3));
    const Outcome shortCount = corvaneRun({"monitor", "--count", "5", "--timeout", "200", "OnMakeCall"});
    EXPECT_EQ(shortCount.status, 1);
    EXPECT_TRUE(std::regex_search(shortCount.err, std::regex("\ncorvane: timeout after 200 ms: 0 of 5 messages\n$")))
        << shortCount.err;

    Proc* voice = spawn({VOICE_SIM, "--bus", address, "--once"}, "");
    ASSERT_EQ(voice->wait(), 0);
    EXPECT_EQ(three->wait(5000), 0) << three->stderr_();
    EXPECT_EQ(monitor->wait(5000), 0) << monitor->stderr_();
    const std::vector<Json> lines = jsonLines(monitor->stdout_());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0]["type"], "call");
    EXPECT_EQ(lines[1]["type"], "return");
    EXPECT_TRUE(waitUntil([&] { return messagesIn(stopped) == 68; }, 5000));
    EXPECT_EQ(term->stop(SIGTERM), 0) << term->stderr_();

    const std::pair<std::string, int> files[] = {{counted, 3}, {idle, 0}, {stopped, 68}};
    for (const auto& [file, messages] : files) {
        SCOPED_TRACE(file);
        const Outcome r = corvaneRun({"--json", "decode", file});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(jsonLines(r.out).size(), static_cast<size_t>(messages));
        EXPECT_EQ(run({"/usr/bin/tshark", "-r", file}).status, 0);
    }
}

}  // namespace
