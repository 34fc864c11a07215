// Packets lost, doubled, moved and cut at every position of a small H.264 stream, against a model of what has to come
// out that knows packets by their place in the stream only.

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "support/Depacketiser.h"

namespace Kavio {
namespace Support {

using namespace Vidora;

namespace {

const Bytes CODE = FromHex("00000001");
const Bytes SPS = FromHex("6742c01eda0280be40");
const Bytes PPS = FromHex("68ce3c80");

// One packet of the stream and what it adds to a frame. The bytes of a picture carry its number.
struct Piece {
    char kind;   // S and C parameter sets, I and P pictures
    bool clean;  // a receiver may begin a frame with it after a loss
    RtpSpec spec;
    Bytes packet, output;
    bool bad = false;  // no payload (PutPacket gives -1 at once), or one byte (the frame gives -1)
};
typedef std::vector<Piece> Pieces;

Piece whole_nal(char kind, const Bytes& nal) {
    return {kind, kind != 'C', RtpSpec(), nal, CODE + nal};
}

Piece picture(char kind, int frame) {
    return whole_nal(
        kind, Bytes{static_cast<uint8_t>(kind == 'I' ? 0x65 : 0x61)} + Bytes(6, static_cast<uint8_t>(0xE0 + frame)));
}

// A picture in FU-A packets.
void add_fragments(Pieces& pieces, char kind, int frame, int count) {
    const uint8_t type = kind == 'I' ? 5 : 1;
    for (int i = 0; i < count; ++i) {
        const int bits = i == 0 ? 0x80 : i == count - 1 ? 0x40 : 0;
        const Bytes body(static_cast<size_t>(5 + i), static_cast<uint8_t>(0xE0 + frame));
        const Bytes front = i == 0 ? CODE + Bytes{static_cast<uint8_t>(0x60 | type)} : Bytes();
        pieces.push_back({kind, false, RtpSpec(), Bytes{0x7C, static_cast<uint8_t>(bits | type)} + body, front + body});
    }
}

Pieces make_stream() {
    std::vector<Pieces> frames(7);
    for (const int key : {0, 3}) {
        frames[static_cast<size_t>(key)] = {whole_nal('S', SPS), whole_nal('C', PPS)};
        add_fragments(frames[static_cast<size_t>(key)], 'I', key, key == 0 ? 3 : 2);
    }
    frames[1] = {picture('P', 1)};
    add_fragments(frames[2], 'P', 2, 3);
    frames[4] = {picture('P', 4), picture('P', 4)};  // two slices
    add_fragments(frames[5], 'P', 5, 2);
    frames[6] = {picture('I', 6)};
    Pieces all;
    uint16_t sequence = 65529;  // wraps inside the stream
    for (size_t i = 0; i < frames.size(); ++i) {
        for (Piece& piece : frames[i]) {
            piece.spec.sequence = sequence++;
            piece.spec.timestamp = 0xFFFFE000 + static_cast<uint32_t>(i) * 3600;
            piece.spec.marker = &piece == &frames[i].back();
            piece.packet = MakeRtp(piece.spec, piece.packet);
            all.push_back(piece);
        }
    }
    return all;
}

// What has to come out, kept as Depacketiser keeps what does.
class Model {
public:
    explicit Model(bool drop) : m_drop(drop) {}

    int Put(const Piece& piece) {
        if (piece.packet.size() < 13) {
            m_held.clear();
            return -1;
        }
        const bool other = piece.spec.timestamp != m_last.timestamp;
        m_damaged = m_damaged && !other;
        if (!m_any) {
            m_events.push_back("ssrc 0 287454020");
        } else if (static_cast<uint16_t>(piece.spec.sequence - m_last.sequence) != 1) {
            watch_gap(piece, other);
        }
        int fed_again = 0;
        if (m_any && other && !m_held.empty()) {
            if (take() < 0) {
                return -1;
            }
            fed_again = 20;
        }
        m_any = true;
        m_last = piece.spec;
        m_held.push_back(piece);
        if (m_damaged && m_drop) {
            m_held.clear();
            return fed_again;
        }
        return fed_again + (piece.spec.marker ? finish() : 0);
    }
    std::vector<Bytes> m_frames;
    std::string m_letters;
    std::vector<std::string> m_events;

private:
    void watch_gap(const Piece& piece, bool other) {
        const std::string event = "seq " + std::to_string(m_last.sequence) + " " + std::to_string(piece.spec.sequence);
        if (other && !m_held.empty()) {
            m_events.push_back(event);
            m_held.clear();
        }
        if (!other || !piece.clean) {
            m_events.push_back(event);
            m_damaged = true;
        }
    }
    bool holds(const char* kinds) const {
        return std::any_of(m_held.begin(), m_held.end(), [kinds](const Piece& piece) {
            return std::string(kinds).find(piece.kind) != std::string::npos;
        });
    }
    int finish() {
        const bool bad = std::any_of(m_held.begin(), m_held.end(), [](const Piece& piece) { return piece.bad; });
        return bad || holds("IP") ? take() : 0;
    }
    int take() {
        Bytes frame;
        char letter = 'P';
        bool bad = false;
        for (const Piece& piece : m_held) {
            frame = frame + piece.output;
            letter = piece.kind == 'I' ? 'I' : letter;
            bad = bad || piece.bad;
        }
        const bool own_sets = holds("S") && holds("C");
        m_held.clear();
        if (bad) {
            return -1;
        }
        m_letters += letter;
        m_frames.push_back(letter == 'I' && !own_sets ? CODE + SPS + CODE + PPS + frame : frame);
        return 1;
    }

    const bool m_drop;
    bool m_any = false;
    bool m_damaged = false;
    RtpSpec m_last;
    Pieces m_held;
};

// Runs the pieces through both and compares; with damaged frames dropped, no frame holds another frame's bytes.
void check(const Pieces& pieces, const std::string& what) {
    for (const bool drop : {true, false}) {
        const std::string name = what + (drop ? " drop" : " keep");
        Model model(drop);
        Depacketiser in(ENC_TYPE_H264, drop);
        in.Engine().SetH264Config(SPS.data(), static_cast<int>(SPS.size()), PPS.data(), static_cast<int>(PPS.size()));
        for (const Piece& piece : pieces) {
            ASSERT_EQ(model.Put(piece), in.Put(piece.packet)) << name << " at " << piece.spec.sequence;
        }
        ASSERT_EQ(model.m_letters, in.m_letters) << name;
        ASSERT_EQ(model.m_events, in.m_events) << name;
        ASSERT_EQ(model.m_frames, in.m_frames) << name;
        for (const Bytes& frame : in.m_frames) {
            Bytes tags;
            std::copy_if(frame.begin(), frame.end(), std::back_inserter(tags),
                         [](uint8_t byte) { return byte >= 0xE0; });
            ASSERT_TRUE(!drop || std::equal(tags.begin() + 1, tags.end(), tags.begin())) << name;
        }
    }
}

TEST(Rtp2FrameLoss, LostDoubledAndMovedAtEveryPosition) {
    const Pieces all = make_stream();
    check(all, "whole");
    for (size_t i = 0; i < all.size(); ++i) {
        Pieces lost = all;
        lost.erase(lost.begin() + static_cast<long>(i));
        check(lost, "lost " + std::to_string(i));
        for (size_t j = 0; j < lost.size(); ++j) {
            const std::string place = std::to_string(i) + " and " + std::to_string(j);
            Pieces two_lost = lost;
            two_lost.erase(two_lost.begin() + static_cast<long>(j));
            check(two_lost, "lost " + place);
            Pieces moved = lost;
            moved.insert(moved.begin() + static_cast<long>(j), all[i]);
            check(moved, "moved " + place);
            Pieces doubled = all;
            doubled.insert(doubled.begin() + static_cast<long>(j), all[i]);
            check(doubled, "doubled " + place);
        }
    }
}

TEST(Rtp2FrameLoss, CutAtEveryLength) {
    const Pieces all = make_stream();
    for (size_t i = 0; i < all.size(); ++i) {
        const size_t whole = all[i].packet.size();
        for (size_t len = 0; len < whole; ++len) {
            Pieces pieces = all;
            Piece& cut = pieces[i];
            cut.packet.resize(len);
            cut.bad = len == 13;
            if (len > 13 && (len == 14 || cut.kind == 'S' || cut.kind == 'C')) {
                continue;  // still taken, for what it isn't
            }
            cut.output.resize(len > 13 ? cut.output.size() - (whole - len) : 0);
            check(pieces, "cut " + std::to_string(i) + " to " + std::to_string(len));
        }
    }
}

}  // namespace
}  // namespace Support
}  // namespace Kavio
