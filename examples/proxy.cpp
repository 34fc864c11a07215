// The smallest proxy, which pulls a stream of another server once for all who watch it: example_proxy PORT SERVER
// SERVER is [USER:PASSWORD@]HOST[:PORT]; its stream 'cam/realmonitor?channel=1&subtype=0' is published under that name.
// Watch it with: ffplay 'rtsp://127.0.0.1:PORT/cam/realmonitor?channel=1&subtype=0'
#include <iostream>
#include <string>

#include "Vidora/Vidora.h"
using namespace Kavio::Vidora;

const char CONTENT[] = "cam/realmonitor?channel=1&subtype=0";

// A channel over a source that pulls; false if there can be none.
bool publish(CLiveSvr* live, const char* server, const CRtspSvrConfig& config) {
    CDataSource* source = CDataSource::Create((std::string(CONTENT) + "?proxy=" + server).c_str());
    CLiveChannel* channel = source != nullptr ? CLiveChannel::Create() : nullptr;
    if (channel == nullptr) {
        return false;
    }
    source->SetConfig(config);
    const bool pulls = source->Init(live->GetID(), 0) == 0;
    channel->SetConfig(config);
    channel->Init(CONTENT, live->GetID(), TRANSF_TYPE_RTP);
    channel->AddDataSrc(source, 0);
    return live->AddLiveChannel(CONTENT, channel, source) == 0 && pulls;
}

int main(int argc, char** argv) {
    const int port = argc > 2 ? std::atoi(argv[1]) : 0;
    if (port < 1 || port > 65535) {
        std::cerr << "usage: example_proxy PORT [USER:PASSWORD@]HOST[:PORT]" << std::endl;
        return 2;
    }
    CNetThread::CreateThreadPool(4, false);
    CRtspSvrConfig config;
    config.SetConformance(true);
    CLiveSvr* live = CLiveSvr::Create(0);
    CSockAddrStorage address("127.0.0.1", static_cast<unsigned short>(port));
    CRtspSvr* server = publish(live, argv[2], config) ? CRtspSvr::Create(address) : nullptr;
    if (server != nullptr) {
        server->SetLiveSvr(live);
        server->SetConfig(config);
        std::cout << "listening on 127.0.0.1; an empty line ends" << std::endl;
        std::cin.get();
        server->Stop();  // no new sessions
        server->EndSessions(1000);
        server->Close();
    }
    live->Close();
    CNetThread::DestroyThreadPool();
    return server != nullptr ? 0 : 1;
}
