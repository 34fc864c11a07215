// The smallest proxy, which pulls a stream of another server once for all who watch it: example_proxy PORT SERVER
// SERVER is [USER:PASSWORD@]HOST[:PORT]; its stream 'cam/realmonitor?channel=1&subtype=0' is published under that name.
// Watch it with: ffplay 'rtsp://127.0.0.1:PORT/cam/realmonitor?channel=1&subtype=0'
#include <string>

#include "Serving.h"
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

bool is_server(const char* text) {
    return *text != '\0';
}

int main(int argc, char** argv) {
    const int port = port_of(argc, argv, "example_proxy PORT [USER:PASSWORD@]HOST[:PORT]", &is_server);
    if (port == 0) {
        return 2;
    }
    CNetThread::CreateThreadPool(4, false);
    CRtspSvrConfig config;
    config.SetConformance(true);
    CLiveSvr* live = CLiveSvr::Create(0);
    const bool served = publish(live, argv[2], config) && serve(port, config, live);
    live->Close();
    CNetThread::DestroyThreadPool();
    return served ? 0 : 1;
}
