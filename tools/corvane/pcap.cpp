#include "pcap.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace cvi {
namespace {

constexpr uint32_t kPcapMicro = 0xa1b2c3d4;
constexpr uint32_t kPcapNano = 0xa1b23c4d;
constexpr uint32_t kSectionHeader = 0x0a0d0d0a;
constexpr uint32_t kByteOrderMagic = 0x1a2b3c4d;
constexpr uint32_t kInterfaceBlock = 1;
constexpr uint32_t kObsoletePacket = 2;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint16_t kOptComment = 1;
constexpr uint16_t kOptApplication = 4;  // shb_userappl
constexpr uint16_t kOptIfName = 2;
constexpr uint16_t kOptTsResol = 9;
constexpr uint16_t kOptTsOffset = 14;

uint32_t le32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
uint32_t be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

struct Damage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string at(uint64_t offset) { return "offset " + std::to_string(offset); }

// Words of one byte order at bounded positions of the file.
class Words {
public:
    Words(std::span<const uint8_t> b, bool big) : b_(b), big_(big) {}
    uint32_t u32(uint64_t o) const { return big_ ? be32(b_.data() + o) : le32(b_.data() + o); }
    uint16_t u16(uint64_t o) const {
        const uint8_t* p = b_.data() + o;
        return static_cast<uint16_t>(big_ ? p[0] << 8 | p[1] : p[1] << 8 | p[0]);
    }
    uint64_t u64(uint64_t o) const {
        const uint64_t hi = u32(big_ ? o : o + 4), lo = u32(big_ ? o + 4 : o);
        return hi << 32 | lo;
    }
    bool big() const { return big_; }

private:
    std::span<const uint8_t> b_;
    bool big_;
};

// A timestamp in units of 1/unitsPerSecond, as seconds and nanoseconds.
void setTime(CaptureFrame& f, uint64_t ticks, uint64_t unitsPerSecond, int64_t offsetSeconds) {
    f.seconds = ticks / unitsPerSecond + static_cast<uint64_t>(offsetSeconds);
    const uint64_t rest = ticks % unitsPerSecond;
    f.nanoseconds = static_cast<uint32_t>(static_cast<long double>(rest) * 1e9L /
                                          static_cast<long double>(unitsPerSecond));
}

void readPcap(std::span<const uint8_t> b, Capture& c) {
    c.format = "pcap";
    if (b.size() < 24) throw Damage("a pcap header of " + std::to_string(b.size()) + " bytes, not 24");
    const bool big = be32(b.data()) == kPcapMicro || be32(b.data()) == kPcapNano;
    const Words w(b, big);
    const bool nano = w.u32(0) == kPcapNano;
    const uint32_t linkType = w.u32(20) & 0xffff;
    uint64_t o = 24;
    while (o < b.size()) {
        if (b.size() - o < 16)
            throw Damage("packet " + std::to_string(c.frames.size() + 1) + " at " + at(o) +
                         ": a record header of " + std::to_string(b.size() - o) + " bytes, not 16");
        const uint32_t length = w.u32(o + 8);
        if (length > b.size() - o - 16)
            throw Damage("packet " + std::to_string(c.frames.size() + 1) + " at " + at(o) + ": " +
                         std::to_string(length) + " bytes announced, " +
                         std::to_string(b.size() - o - 16) + " left in the file");
        CaptureFrame f;
        f.number = c.frames.size() + 1;
        f.linkType = linkType;
        const uint64_t fraction = w.u32(o + 4);
        const uint64_t units = nano ? 1'000'000'000 : 1'000'000;
        setTime(f, uint64_t{w.u32(o)} * units + (fraction < units ? fraction : units - 1), units, 0);
        f.cut = length < w.u32(o + 12);
        f.data = b.subspan(o + 16, length);
        c.frames.push_back(std::move(f));
        o += 16 + uint64_t{length};
    }
}

struct Interface {
    uint32_t linkType = 0;
    uint32_t snapLength = 0;
    uint64_t unitsPerSecond = 1'000'000;
    int64_t offsetSeconds = 0;
};

// The options after a block's fixed part, up to the block's trailing length.
template <class F>
void options(const Words& w, uint64_t from, uint64_t end, uint64_t block, F&& each) {
    while (from + 4 <= end) {
        const uint16_t code = w.u16(from), length = w.u16(from + 2);
        if (code == 0) return;
        const uint64_t padded = (uint64_t{length} + 3) / 4 * 4;
        if (from + 4 + padded > end)
            throw Damage("the block at " + at(block) + " has an option (code " +
                         std::to_string(code) + ", " + std::to_string(length) +
                         " bytes) that runs past its end");
        each(code, from + 4, length);
        from += 4 + padded;
    }
}

void readPcapng(std::span<const uint8_t> b, Capture& c) {
    c.format = "pcapng";
    std::vector<Interface> interfaces;
    Words w(b, false);
    uint64_t o = 0;
    while (o < b.size()) {
        if (b.size() - o < 12)
            throw Damage("a block at " + at(o) + " of " + std::to_string(b.size() - o) +
                         " bytes, fewer than 12 (the file is cut short)");
        if (le32(b.data() + o) == kSectionHeader) {
            if (b.size() - o < 28) throw Damage("a section header at " + at(o) + " is cut short");
            const uint32_t order = le32(b.data() + o + 8);
            if (order != kByteOrderMagic && be32(b.data() + o + 8) != kByteOrderMagic)
                throw Damage("the section header at " + at(o) + " has no byte-order magic");
            w = Words(b, order != kByteOrderMagic);
            if (w.u16(o + 12) != 1)
                throw Damage("the section at " + at(o) + " is pcapng version " +
                             std::to_string(w.u16(o + 12)) + ", not 1");
            interfaces.clear();
        }
        const uint32_t type = w.u32(o);
        const uint32_t length = w.u32(o + 4);
        if (length < 12 || length % 4 || length > b.size() - o)
            throw Damage("the block at " + at(o) + " (type " + std::to_string(type) + ") is " +
                         std::to_string(length) + " bytes long, " +
                         (length > b.size() - o
                              ? "more than the " + std::to_string(b.size() - o) + " left: the file is cut short"
                              : std::string("not a multiple of 4 of at least 12")));
        if (w.u32(o + length - 4) != length)
            throw Damage("the block at " + at(o) + " does not end with its length " +
                         std::to_string(length));
        const uint64_t end = o + length - 4;  // the trailing length
        auto need = [&](uint64_t fixed) {
            if (o + 8 + fixed > end)
                throw Damage("the block at " + at(o) + " (type " + std::to_string(type) +
                             ") is too short for its fields");
        };
        auto iface = [&](uint32_t id) -> const Interface& {
            if (id >= interfaces.size())
                throw Damage("a packet at " + at(o) + " names interface " + std::to_string(id) +
                             ", of " + std::to_string(interfaces.size()) + " described");
            return interfaces[id];
        };
        auto packet = [&](const Interface& i, uint64_t data, uint64_t captured, uint64_t original) {
            if (data + captured > end)
                throw Damage("the packet at " + at(o) + " (" + std::to_string(captured) +
                             " bytes) runs past the end of its block");
            CaptureFrame f;
            f.number = c.frames.size() + 1;
            f.linkType = i.linkType;
            f.cut = captured < original;
            f.data = b.subspan(data, captured);
            options(w, data + (captured + 3) / 4 * 4, end, o, [&](uint16_t code, uint64_t v, uint16_t n) {
                if (code == kOptComment)
                    f.comments.emplace_back(reinterpret_cast<const char*>(b.data() + v), n);
            });
            c.frames.push_back(std::move(f));
            return &c.frames.back();
        };
        switch (type) {
            case kSectionHeader:
                break;
            case kInterfaceBlock: {
                need(8);
                Interface i;
                i.linkType = w.u16(o + 8);
                i.snapLength = w.u32(o + 12);
                options(w, o + 16, end, o, [&](uint16_t code, uint64_t v, uint16_t n) {
                    if (code == kOptTsResol && n >= 1) {
                        const uint8_t r = b[v];
                        const unsigned exp = r & 0x7f;
                        if ((r & 0x80) ? exp > 63 : exp > 19)
                            throw Damage("the interface at " + at(o) + " has a time resolution " +
                                         std::to_string(r) + " no clock has");
                        i.unitsPerSecond = 1;
                        for (unsigned k = 0; k < exp; ++k) i.unitsPerSecond *= (r & 0x80) ? 2 : 10;
                    } else if (code == kOptTsOffset && n >= 8) {
                        i.offsetSeconds = static_cast<int64_t>(w.u64(v));
                    }
                });
                interfaces.push_back(i);
                break;
            }
            case kEnhancedPacket:
            case kObsoletePacket: {
                // The same layout but for the interface's number: 32 bits in
                // an enhanced packet, 16 (and a drop count) in an obsolete one.
                need(20);
                const Interface& i = iface(type == kEnhancedPacket ? w.u32(o + 8) : w.u16(o + 8));
                const uint64_t ticks = uint64_t{w.u32(o + 12)} << 32 | w.u32(o + 16);
                CaptureFrame* f = packet(i, o + 28, w.u32(o + 20), w.u32(o + 24));
                setTime(*f, ticks, i.unitsPerSecond, i.offsetSeconds);
                break;
            }
            case kSimplePacket: {
                need(4);
                const Interface& i = iface(0);
                const uint32_t original = w.u32(o + 8);
                uint64_t captured = end - (o + 12);
                if (original < captured) captured = original;
                if (i.snapLength && i.snapLength < captured) captured = i.snapLength;
                packet(i, o + 12, captured, original);
                break;
            }
            default:  // name resolution, statistics, secrets, custom blocks
                break;
        }
        o += length;
    }
}

void putLe16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}
void putLe32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void pad4(std::vector<uint8_t>& out) {
    while (out.size() % 4) out.push_back(0);
}
void option(std::vector<uint8_t>& out, uint16_t code, std::string_view value) {
    const size_t n = value.size() < 0xfffc ? value.size() : 0xfffc;
    putLe16(out, code);
    putLe16(out, static_cast<uint16_t>(n));
    out.insert(out.end(), value.begin(), value.begin() + static_cast<std::ptrdiff_t>(n));
    pad4(out);
}
// Type and length around a body that holds options (or none).
std::vector<uint8_t> block(uint32_t type, std::vector<uint8_t> body) {
    std::vector<uint8_t> out;
    const auto length = static_cast<uint32_t>(body.size() + 12);
    putLe32(out, type);
    putLe32(out, length);
    out.insert(out.end(), body.begin(), body.end());
    putLe32(out, length);
    return out;
}

}  // namespace

bool isCaptureFile(std::span<const uint8_t> b) {
    if (b.size() < 4) return false;
    const uint32_t le = le32(b.data()), be = be32(b.data());
    return le == kSectionHeader || le == kPcapMicro || le == kPcapNano || be == kPcapMicro ||
           be == kPcapNano;
}

Capture readCapture(std::span<const uint8_t> bytes) {
    Capture c;
    try {
        if (!isCaptureFile(bytes)) throw Damage("no pcap or pcapng magic at the start");
        if (le32(bytes.data()) == kSectionHeader)
            readPcapng(bytes, c);
        else
            readPcap(bytes, c);
    } catch (const Damage& e) {
        c.damage = e.what();
    }
    return c;
}

PcapngWriter::PcapngWriter(int fd, const std::string& application, const std::string& interfaceName)
    : fd_(fd) {
    std::vector<uint8_t> shb;
    putLe32(shb, kByteOrderMagic);
    putLe16(shb, 1);
    putLe16(shb, 0);
    putLe32(shb, 0xffffffff);  // section length: not given
    putLe32(shb, 0xffffffff);
    option(shb, kOptApplication, application);
    putLe32(shb, 0);  // end of options
    put(block(kSectionHeader, std::move(shb)));

    std::vector<uint8_t> idb;
    putLe16(idb, static_cast<uint16_t>(kLinkTypeDbus));
    putLe16(idb, 0);
    putLe32(idb, 0);  // no snapshot length: whole messages
    option(idb, kOptIfName, interfaceName);
    option(idb, kOptTsResol, std::string_view("\x06", 1));  // microseconds
    putLe32(idb, 0);
    put(block(kInterfaceBlock, std::move(idb)));
}

void PcapngWriter::write(std::span<const uint8_t> message, uint64_t seconds, uint32_t microseconds,
                         const std::string& comment) {
    std::vector<uint8_t> epb;
    const uint64_t ticks = seconds * 1'000'000 + microseconds;
    putLe32(epb, 0);  // interface 0
    putLe32(epb, static_cast<uint32_t>(ticks >> 32));
    putLe32(epb, static_cast<uint32_t>(ticks));
    putLe32(epb, static_cast<uint32_t>(message.size()));
    putLe32(epb, static_cast<uint32_t>(message.size()));
    epb.insert(epb.end(), message.begin(), message.end());
    pad4(epb);
    if (!comment.empty()) {
        option(epb, kOptComment, comment);
        putLe32(epb, 0);
    }
    put(block(kEnhancedPacket, std::move(epb)));
}

void PcapngWriter::put(const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error(std::strerror(n < 0 ? errno : EIO));
        done += static_cast<size_t>(n);
    }
}

}  // namespace cvi
