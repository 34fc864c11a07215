// Sends frames as RTP over UDP: rtp_sender PORT ENC_TYPE PAYLOAD_TYPE CLOCK_RATE FRAME_TYPE < frames
//
// A frame on standard input is its length (4 bytes, high byte first), its time stamp in milliseconds (8 bytes) and its
// bytes. Frames go to the loopback address as they come, a millisecond apart, so that the receiver keeps up. The
// stream ends with an RTCP BYE (RFC 3550 6.6) to the next port.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Ostra/ByteReader.h"
#include "Ostra/ByteWriter.h"
#include "StreamParser/StreamParser.h"
#include "Vidora/Names.h"

namespace {

using namespace Kavio::Vidora;
namespace Flumen = Kavio::Flumen;

int open_socket(int port) {
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0) {
        std::perror("socket");
        std::exit(1);
    }
    return fd;
}

// The next frame of standard input; an invalid one at its end.
Flumen::CMediaFrame read_frame(int type) {
    unsigned char head[12];
    if (std::fread(head, 1, sizeof(head), stdin) != sizeof(head)) {
        return Flumen::CMediaFrame();
    }
    CByteReader reader(head, sizeof(head));
    Flumen::CMediaFrame frame(reader.ReadU32());
    frame.setPts(reader.ReadU64(), Flumen::PTS_TYPE_MS);
    frame.setType(type);
    if (!frame.valid() || std::fread(frame.getBuffer(), 1, frame.size(), stdin) != frame.size()) {
        std::fprintf(stderr, "input cut in a frame\n");
        std::exit(1);
    }
    return frame;
}

void send_bye(int port, uint32_t ssrc) {
    unsigned char bye[16];
    CByteWriter writer(bye, sizeof(bye));
    writer.WriteU32(0x80C90001);  // a receiver report without blocks, which has to stand first (6.1)
    writer.WriteU32(ssrc);
    writer.WriteU32(0x81CB0001);  // version 2, one source, BYE, one word more
    writer.WriteU32(ssrc);
    const int fd = open_socket(port + 1);
    send(fd, bye, sizeof(bye), 0);
    close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: rtp_sender PORT ENC_TYPE PAYLOAD_TYPE CLOCK_RATE FRAME_TYPE\n");
        return 1;
    }
    const int port = std::atoi(argv[1]);
    const CStreamParserPtr encoder = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, STREAM_TYPE_RTP);
    RtpEncParam param;
    encoder->GetParam(param);  // the random beginnings
    param.enc_type = std::atoi(argv[2]);
    param.payload_type = static_cast<uint8_t>(std::atoi(argv[3]));
    param.clock_rate = static_cast<uint32_t>(std::atoi(argv[4]));
    encoder->SetParam(param);
    const int fd = open_socket(port);
    for (Flumen::CMediaFrame frame = read_frame(argv[5][0]); frame.valid(); frame = read_frame(argv[5][0])) {
        if (encoder->InputFrame(frame) != PARSER_FRAME_READY) {
            return 1;
        }
        for (Flumen::CMediaFrame packet = encoder->OutputFrame(); packet.valid(); packet = encoder->OutputFrame()) {
            if (send(fd, packet.getBuffer(), packet.size(), 0) != static_cast<ssize_t>(packet.size())) {
                std::perror("send");
                return 1;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the two ports have no order among them
    send_bye(port, param.ssrc);
    close(fd);
    return 0;
}
