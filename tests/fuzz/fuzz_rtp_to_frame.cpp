// The depacketiser, for each encode type. First byte: encode type, and bit 7 to drop damaged frames.
#include <deque>

#include "FuzzSupport.h"
#include "StreamParser/Rtp2Frame.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

// What PutPacket completed: its size is what was announced, and nothing is written beyond it.
void take_frame(CRtp2Frame& engine, int enc_type, size_t held_bytes, size_t held) {
    const uint32_t size = engine.GetFrameSize();
    // No frame is larger than its packets, a start code for each of them or of their parts, and a configuration.
    Fuzz::Require(size <= 3 * held_bytes + 5 * held + CRtp2Frame::CONFIG_SIZE);
    Fuzz::Bytes frame(size);
    Fuzz::Require(engine.GetFrame(frame.data(), size) == size || frame.empty());
    const int type = engine.GetFrameType();
    Fuzz::Require(enc_type == ENC_TYPE_MPEG2TS || type == 'I' || type == 'P' || type == 'J' || type == 'A' ||
                  type == 'W');
    if (enc_type == ENC_TYPE_JPEG && engine.GetWidth() > 0) {
        Fuzz::Require(size >= 605 && frame[0] == 0xFF && frame[1] == 0xD8);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    const uint8_t settings = input.ReadU8();
    const int enc_type = settings & 0x0F;
    CRtp2Frame engine;
    engine.Init(enc_type, 96, 8000);
    engine.SetDropDamaged((settings & 0x80) != 0);
    const unsigned char config[] = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x07, 0x82, 0x39};
    engine.SetH264Config(config, sizeof(config), config, 4);

    Fuzz::RtpSender sender;
    Fuzz::Record record;
    std::deque<Fuzz::Bytes> held;  // the engine borrows its packets
    size_t held_bytes = 0;
    while (Fuzz::ReadRecord(input, record)) {
        Fuzz::Bytes packet = sender.Make(record);
        for (int round = 0; round < 2; ++round) {
            held.push_back(packet);
            held_bytes += packet.size();
            const int ret = engine.PutPacket(held.back().data(), static_cast<int>(packet.size()));
            Fuzz::Require(ret >= FRAME_FAILED && ret <= FRAME_COMPLETE_NEXT);
            Fuzz::Require(round == 0 || ret != FRAME_COMPLETE_NEXT);
            if (ret > FRAME_MORE) {
                take_frame(engine, enc_type, held_bytes, held.size());
            }
            if (ret != FRAME_MORE) {
                engine.Clear();
                Fuzz::Require(engine.GetFrameSize() == 0);
                held.clear();
                held_bytes = 0;
            }
            if (ret != FRAME_COMPLETE_NEXT) {
                break;
            }
        }
    }
    return 0;
}
