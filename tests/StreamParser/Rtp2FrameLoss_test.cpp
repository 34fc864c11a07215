// Packets lost, doubled, moved and cut at every position of a small H.264 stream, against a model of what has to come
// out that knows packets by their place in the stream only.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/Depacketiser.h"

namespace Kavio {
namespace Vidora {
namespace Support {
namespace {

const char SPS_HEX[] = "6742c01eda0280be40";
const char PPS_HEX[] = "68ce3c80";

// One packet of the stream and what it adds to a frame. The bytes of a picture carry its number.
struct Piece {
    int frame;
    char kind;   // S and C parameter sets, I and P picture, each with letters below
    bool clean;  // a receiver may begin a frame with it after a loss
    Bytes packet;
    Bytes output;
    uint16_t sequence;
    uint32_t timestamp;
    bool marker;
    bool refused = false;  // PutPacket gives -1 at once
    bool bad = false;      // the frame with it gives -1
};

class Stream {
public:
    Stream() {
        add_key(3);
        add(single(false), 'P', true);
        end();
        add_fragments(false, 3);
        end();
        add_key(2);
        add(single(false), 'P', true);
        add(single(false), 'P', true);  // second slice
        end();
        add_fragments(false, 2);
        end();
        add(single(true), 'I', true);
        end();
    }
    std::vector<Piece> m_pieces;

private:
    Bytes tag(size_t len) const { return Bytes(len, static_cast<uint8_t>(0xE0 | m_frame)); }
    Bytes single(bool key) const { return Bytes{static_cast<uint8_t>(key ? 0x65 : 0x61)} + tag(6); }
    void add_key(int fragments) {
        add(FromHex(SPS_HEX), 'S', true);
        add(FromHex(PPS_HEX), 'C', false);
        add_fragments(true, fragments);
        end();
    }
    void add_fragments(bool key, int count) {
        for (int i = 0; i < count; ++i) {
            const uint8_t type = key ? 5 : 1;
            const uint8_t bits = i == 0 ? 0x80 : i == count - 1 ? 0x40 : 0;
            const Bytes body = tag(static_cast<size_t>(5 + i));
            const Bytes front = i == 0 ? FromHex("00000001") + Bytes{static_cast<uint8_t>(0x60 | type)} : Bytes();
            add(Bytes{0x7C, static_cast<uint8_t>(bits | type)} + body, key ? 'I' : 'P', false);
            m_pieces.back().output = front + body;
        }
    }
    void add(const Bytes& payload, char kind, bool clean) {
        Piece piece;
        piece.frame = m_frame;
        piece.kind = kind;
        piece.clean = clean;
        piece.sequence = m_sequence++;
        piece.timestamp = 0xFFFFE000 + static_cast<uint32_t>(m_frame) * 3600;
        piece.marker = false;
        piece.output = FromHex("00000001") + payload;
        piece.packet = payload;  // its header comes at the end of the frame
        m_pieces.push_back(piece);
    }
    void end() {
        m_pieces.back().marker = true;
        for (Piece& piece : m_pieces) {
            if (piece.frame == m_frame) {
                RtpSpec spec;
                spec.sequence = piece.sequence;
                spec.timestamp = piece.timestamp;
                spec.marker = piece.marker;
                piece.packet = MakeRtp(spec, piece.packet);
            }
        }
        ++m_frame;
    }
    int m_frame = 0;
    uint16_t m_sequence = 65529;  // wraps inside the stream
};

// What has to come out.
struct Outcome {
    std::string results;
    std::string letters;
    std::vector<Bytes> frames;
    std::vector<std::string> events;
};

class Model {
public:
    explicit Model(bool drop) : m_drop(drop) {}

    void Put(const Piece& piece) {
        if (piece.refused) {
            give(-1);
            return;
        }
        bool damaged = piece.timestamp == m_timestamp && m_damaged;
        const bool other = piece.timestamp != m_timestamp;
        if (!m_any) {
            m_outcome.events.push_back("ssrc 0 287454020");
        } else if (static_cast<uint16_t>(piece.sequence - m_sequence) != 1) {
            const std::string event = "seq " + std::to_string(m_sequence) + " " + std::to_string(piece.sequence);
            if (other && !m_held.empty()) {
                m_outcome.events.push_back(event);
                m_held.clear();
            }
            if (!other || !piece.clean) {
                m_outcome.events.push_back(event);
                damaged = true;
            }
        }
        m_damaged = damaged;
        if (m_any && other && !m_held.empty()) {
            const int ret = make();
            m_held.clear();
            if (ret < 0) {
                give(-1);
                return;
            }
            m_outcome.results += "2";  // and the packet is fed again
        }
        m_any = true;
        m_timestamp = piece.timestamp;
        m_sequence = piece.sequence;
        m_held.push_back(piece);
        if (damaged && m_drop) {
            m_held.clear();
            give(0);
        } else {
            give(piece.marker ? finish() : 0);
        }
    }
    Outcome m_outcome;

private:
    void give(int result) {
        if (result < 0) {
            m_held.clear();
        }
        m_outcome.results += std::to_string(result) + " ";
    }
    int finish() {
        const int ret = std::any_of(m_held.begin(), m_held.end(), is_picture) || is_bad() ? make() : 0;
        if (ret != 0) {
            m_held.clear();
        }
        return ret;
    }
    bool is_bad() const {
        return std::any_of(m_held.begin(), m_held.end(), [](const Piece& piece) { return piece.bad; });
    }
    static bool is_picture(const Piece& piece) { return piece.kind == 'I' || piece.kind == 'P'; }
    int make() {
        if (is_bad()) {
            return -1;
        }
        Bytes frame;
        char letter = 0;
        bool sets[2] = {false, false};
        for (const Piece& piece : m_held) {
            frame = frame + piece.output;
            sets[0] |= piece.kind == 'S';
            sets[1] |= piece.kind == 'C';
            letter = letter == 0 && is_picture(piece) ? piece.kind : letter;
        }
        if (letter == 'I' && !(sets[0] && sets[1])) {
            frame = FromHex(std::string("00000001") + SPS_HEX + "00000001" + PPS_HEX) + frame;
        }
        m_outcome.letters += letter == 'I' ? 'I' : 'P';
        m_outcome.frames.push_back(frame);
        return 1;
    }

    bool m_drop;
    bool m_any = false;
    bool m_damaged = false;
    uint32_t m_timestamp = 0;
    uint16_t m_sequence = 0;
    std::vector<Piece> m_held;
};

Outcome run_engine(const std::vector<Piece>& pieces, bool drop) {
    Depacketiser in(ENC_TYPE_H264, drop);
    const Bytes sps = FromHex(SPS_HEX);
    const Bytes pps = FromHex(PPS_HEX);
    in.Engine().SetH264Config(sps.data(), static_cast<int>(sps.size()), pps.data(), static_cast<int>(pps.size()));
    Outcome outcome;
    for (const Piece& piece : pieces) {
        const int ret = in.Put(piece.packet);
        outcome.results += (ret >= 20 ? "2" + std::to_string(ret - 20) : std::to_string(ret)) + " ";
    }
    outcome.letters = in.m_letters;
    outcome.frames = in.m_frames;
    outcome.events = in.m_events;
    return outcome;
}

// Runs the pieces through both and compares; with damaged frames dropped, no frame holds another frame's bytes.
void check(const std::vector<Piece>& pieces, const std::string& what) {
    for (const bool drop : {true, false}) {
        Model model(drop);
        for (const Piece& piece : pieces) {
            model.Put(piece);
        }
        const Outcome got = run_engine(pieces, drop);
        const std::string name = what + (drop ? " drop" : " keep");
        ASSERT_EQ(model.m_outcome.results, got.results) << name;
        ASSERT_EQ(model.m_outcome.letters, got.letters) << name;
        ASSERT_EQ(model.m_outcome.events, got.events) << name;
        ASSERT_EQ(model.m_outcome.frames.size(), got.frames.size()) << name;
        for (size_t i = 0; i < got.frames.size(); ++i) {
            ASSERT_EQ(ToHex(model.m_outcome.frames[i]), ToHex(got.frames[i])) << name << " frame " << i;
            uint8_t tag = 0;
            for (const uint8_t byte : got.frames[i]) {
                const bool tagged = byte >= 0xE0;
                ASSERT_TRUE(!drop || !tagged || tag == 0 || tag == byte) << name << " frame " << i;
                tag = tagged ? byte : tag;
            }
        }
    }
}

TEST(Rtp2FrameLoss, WholeStream) {
    const Stream stream;
    check(stream.m_pieces, "whole");
    const Outcome outcome = run_engine(stream.m_pieces, true);
    EXPECT_EQ("IPPIPPI", outcome.letters);
    EXPECT_EQ(1u, outcome.events.size());
}

TEST(Rtp2FrameLoss, LostDoubledAndMovedAtEveryPosition) {
    const std::vector<Piece> all = Stream().m_pieces;
    for (size_t i = 0; i < all.size(); ++i) {
        for (size_t j = 0; j <= all.size(); ++j) {
            std::vector<Piece> pieces = all;
            pieces.erase(pieces.begin() + static_cast<long>(i));
            if (j < pieces.size()) {
                std::vector<Piece> two_lost = pieces;
                two_lost.erase(two_lost.begin() + static_cast<long>(j));
                check(two_lost, "lost " + std::to_string(i) + " and then " + std::to_string(j));
                std::vector<Piece> moved = pieces;
                moved.insert(moved.begin() + static_cast<long>(j), all[i]);
                check(moved, "moved " + std::to_string(i) + " to " + std::to_string(j));
            } else {
                check(pieces, "lost " + std::to_string(i));
            }
            std::vector<Piece> doubled = all;
            doubled.insert(doubled.begin() + static_cast<long>(j), all[i]);
            check(doubled, "doubled " + std::to_string(i) + " at " + std::to_string(j));
        }
    }
}

TEST(Rtp2FrameLoss, CutAtEveryLength) {
    const std::vector<Piece> all = Stream().m_pieces;
    for (size_t i = 0; i < all.size(); ++i) {
        for (size_t len = 0; len < all[i].packet.size(); ++len) {
            std::vector<Piece> pieces = all;
            Piece& cut = pieces[i];
            cut.packet.resize(len);
            cut.refused = len < 13;
            cut.bad = len == 13;
            if (len > 13) {
                if (cut.kind == 'S' || cut.kind == 'C' || len < 15) {
                    continue;  // still taken, for what it isn't
                }
                cut.output.resize(cut.output.size() - (all[i].packet.size() - len));
            }
            check(pieces, "cut " + std::to_string(i) + " to " + std::to_string(len));
        }
    }
}

}  // namespace
}  // namespace Support
}  // namespace Vidora
}  // namespace Kavio
