// A live channel that sends packets to multicast destinations as it is told, a command a line:
//   open rtp|ts GROUP PORT INTERFACE   makes a channel with one destination; "-" for no interface
//   put                                one packet for each track, "video" and "audio"; of a transport stream "video"
//   close                              closes the channel
// Each command is answered with a line "done", or "refused"; the log goes to standard output as well.

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "Protocol/SdpParser.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "support/StreamPeer.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

// A source of a video and an audio track that gives nothing by itself.
class CSilentSource : public CDataSource {
public:
    int Init(long, int) override { return 0; }
    void AddNotify(long) override {}
    void DelNotify(long) override {}
    int Play(const UtcTime&, const UtcTime&, float, bool) override { return 0; }
    int Play(uint64_t, uint64_t, float, bool) override { return 0; }
    int Pause() override { return 0; }
    int StartStreaming(packet_type_t, CMediaBuffer*, int) override { return 0; }
    int StopStreaming(packet_type_t) override { return 0; }
    using CDataSource::GetSdp;
    int GetSdp(CSdpParser& sdp) override {
        sdp.add_media("video", 0, 1, "RTP/AVP", "96");
        sdp.add_media("audio", 0, 1, "RTP/AVP", "8");
        sdp.GetStream();
        return 0;
    }
    int GetSrcInfo(SrcInfo&, int) override { return -1; }
    int GetPlayRange(UtcTime&, UtcTime&) override { return -1; }
    int GetPlayRange(uint64_t&, uint64_t&) override { return -1; }
    int GetTcpChannel(int) override { return 0; }
    unsigned int GetSSRC(int) override { return 0; }
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }
};

class CDriver {
public:
    ~CDriver() { close(); }

    bool Run(const std::string& line) {
        std::istringstream words(line);
        std::string command, form, group, interface_ip;
        int port = 0;
        words >> command >> form >> group >> port >> interface_ip;
        if (command == "open") {
            return open(form == "ts" ? TRANSF_TYPE_TS : TRANSF_TYPE_RTP, group, port, interface_ip);
        }
        return command == "put" ? put() : close();
    }

private:
    bool open(transf_type_t type, const std::string& group, int port, const std::string& interface_ip) {
        m_type = type;
        m_source = new CSilentSource;
        m_channel = CLiveChannel::Create();
        m_channel->SetConfig(CRtspSvrConfig());
        m_channel->Init("live", 0, type);
        m_channel->AddDataSrc(m_source, 0);
        CSockAddrStorage address(group.c_str(), static_cast<unsigned short>(port));
        return m_channel->AddTransfDst(address, interface_ip == "-" ? nullptr : interface_ip.c_str()) == 0;
    }

    bool put() {
        put_packet(std::string("$\0\0\5video", 9), 0x00000001);
        if (m_type == TRANSF_TYPE_RTP) {
            put_packet(std::string("$\2\0\5audio", 9), 0x01000000);
        }
        return true;
    }

    void put_packet(const std::string& bytes, int tag) {
        auto* packet = new Support::CountedPacket(bytes);
        const packet_type_t type = m_type == TRANSF_TYPE_TS ? PACKET_TYPE_TS : PACKET_TYPE_RTP;
        if (m_channel->GetMediaBuffer(type)->Put(packet, packet->Size(), 1, tag) < 0) {
            packet->Release();
        }
    }

    bool close() {
        if (m_channel != nullptr) {
            m_channel->Close();
            m_source->Close();
        }
        m_channel = nullptr;
        return true;
    }

    transf_type_t m_type = TRANSF_TYPE_NONE;
    CSilentSource* m_source = nullptr;
    CLiveChannel* m_channel = nullptr;
};

void print_line(void*, Ostra::log_level_t, const char* text, size_t length) {
    std::fwrite(text, 1, length, stdout);
}

}  // namespace

int main() {
    Support::CPool pool;
    Ostra::SetLogSink(&print_line, nullptr);
    CDriver driver;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::puts(driver.Run(line) ? "done" : "refused");
        std::fflush(stdout);
    }
    return 0;
}
