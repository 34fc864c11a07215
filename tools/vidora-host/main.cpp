// vidora-host: publishes files as live RTSP streams and serves recordings, on the library's exported headers only.
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "Catalog.h"
#include "ContentRule.h"
#include "Credentials.h"
#include "Monitor.h"
#include "NatEntrance.h"
#include "Options.h"
#include "Vidora/Vidora.h"

using namespace Kavio::Vidora;

namespace {

// How long the sessions may take to end.
const std::chrono::milliseconds END_WAIT{300};

// What the library's callbacks, which are plain functions, need.
const Catalog* g_catalog = nullptr;
const Credentials* g_credentials = nullptr;
Monitor* g_monitor = nullptr;

CStreamSource* make_source(const char* content) {
    return g_catalog->MakeSource(content);
}
IAuthModule* make_auth_module(rtsp_auth_t) {
    return new (std::nothrow) AuthModule(*g_credentials);
}
void on_event(event_type_t event, void* data, int length) {
    g_monitor->Event(event, data, length);
}

void set_log_level(const std::string& name) {
    static const struct {
        const char* name;
        Kavio::Ostra::log_level_t level;
    } levels[] = {{"error", Kavio::Ostra::LOG_LEVEL_ERROR},
                  {"warn", Kavio::Ostra::LOG_LEVEL_WARN},
                  {"info", Kavio::Ostra::LOG_LEVEL_INFO},
                  {"debug", Kavio::Ostra::LOG_LEVEL_DEBUG},
                  {"trace", Kavio::Ostra::LOG_LEVEL_TRACE}};
    for (const auto& row : levels) {
        if (name == row.name) {
            Kavio::Ostra::SetLogLevel(row.level);
        }
    }
}

void fill_config(const Options& options, CRtspSvrConfig& config) {
    const RtpPortRange ports = {options.min_rtp_port, options.max_rtp_port};
    const rtsp_auth_t auth_type = options.users.empty() ? 0 : 1;
    config.SetRtpPort(ports);
    config.SetTimeout(options.timeout_sec);
    config.SetDscp(options.dscp);
    config.SetAuthType(auth_type);
    config.SetHttpAuthType(auth_type);
    config.SetOnvifUserGlobal(true);  // the users are asked for whatever the URL says
    SetContentRule(options);
    config.SetUrlFunc(&RewriteContent);
    config.SetSrcFunc(&make_source);
    config.SetAuthFunc(&make_auth_module);
    config.SetEventFunc(&on_event);
    config.SetConformance(!options.as_described);
}

const MulticastOption* find_multicast(const Options& options, const std::string& name) {
    for (const MulticastOption& multicast : options.multicast) {
        if (multicast.name == name) {
            return &multicast;
        }
    }
    return nullptr;
}

// Everything that is open, closed in order by the destructor.
class Host {
public:
    // From the outside in: no new connections; then all sessions end, together; then the streams and the registry.
    ~Host() {
        if (m_nat != nullptr) {
            m_nat->Close();
        }
        for (CRtspSvr* server : m_servers) {
            server->Stop();
            server->EndSessions(0);
        }
        const auto end = std::chrono::steady_clock::now() + END_WAIT;
        for (CRtspSvr* server : m_servers) {
            const auto left = end - std::chrono::steady_clock::now();
            const auto left_ms = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
            server->EndSessions(static_cast<unsigned int>(std::max<int64_t>(left_ms, 0)));
            server->Close();
        }
        for (const std::string& content : m_published) {
            m_live_svr->DelLiveChannel(content.c_str());
        }
        if (m_live_svr != nullptr) {
            m_live_svr->Close();
        }
        CNetThread::DestroyThreadPool();
    }

    bool Open(const Options& options, std::string& error) {
        if (CNetThread::CreateThreadPool(static_cast<unsigned int>(options.threads), false) < 0) {
            error = "the threads cannot be started";
            return false;
        }
        fill_config(options, m_config);
        m_live_svr = CLiveSvr::Create(0);
        if (m_live_svr == nullptr) {
            error = "not enough memory";
            return false;
        }
        for (const LiveOption& live : options.live) {
            if (!publish(options, live, error)) {
                return false;
            }
        }
        for (const ListenOption& listen : options.listen) {
            if (!open_server(listen, error)) {
                return false;
            }
        }
        return options.nat_point.empty() || open_nat(options, error);
    }

private:
    bool publish(const Options& options, const LiveOption& live, std::string& error) {
        const MulticastOption* multicast = find_multicast(options, live.name);
        const std::string& content = live.content;
        error = live.name + ": cannot be published";
        CDataSource* source = CDataSource::Create(content.c_str());
        if (source == nullptr) {
            error = live.name + ": a channel reads cam/realmonitor?channel=N&subtype=D, D being one digit";
            return false;
        }
        source->SetConfig(m_config);
        CLiveChannel* channel = CLiveChannel::Create();
        if (channel == nullptr || source->Init(m_live_svr->GetID(), 0) < 0) {
            source->Close();
            if (channel != nullptr) {
                channel->Close();
            }
            return false;
        }
        channel->SetConfig(m_config);
        channel->Init(content.c_str(), m_live_svr->GetID(),
                      multicast != nullptr && multicast->is_ts ? TRANSF_TYPE_TS : TRANSF_TYPE_RTP);
        channel->AddDataSrc(source, 0);
        if (m_live_svr->AddLiveChannel(content.c_str(), channel, source) < 0) {
            return false;
        }
        m_published.push_back(content);
        return multicast == nullptr || send_to_group(options, *multicast, *channel, error);
    }

    bool send_to_group(const Options& options, const MulticastOption& multicast, CLiveChannel& channel,
                       std::string& error) {
        CSockAddrStorage group(multicast.group.c_str(), multicast.port);
        const char* local_ip = options.multicast_if.empty() ? nullptr : options.multicast_if.c_str();
        if (!group.IsValid() || !group.IsMulticast()) {
            error = multicast.group + ": is no multicast group";
            return false;
        }
        // A destination follows the channel's description; but a base port without room for the tracks is to be refused
        // at the start. The description comes a moment behind the source's knowing them: so they must be there twice.
        for (int i = 0, looks = 0; i < 100 && looks < 2; ++i) {
            CThread::sleep(20);
            looks += IsDescribed(channel) ? 1 : 0;
        }
        if (channel.AddTransfDst(group, local_ip) < 0) {
            error = multicast.group + ": cannot be sent to";
            return false;
        }
        channel.SetUnicast(false);
        return multicast.is_ts || channel.StartStreaming(PACKET_TYPE_RTP) == 0;
    }

    static bool IsDescribed(CLiveChannel& channel) { return channel.GetTcpChannel(1) >= 0 && channel.GetSSRC(1) != 0; }

    bool open_server(const ListenOption& listen, std::string& error) {
        CSockAddrStorage address(listen.ip.c_str(), listen.port);
        if (!address.IsValid()) {
            error = listen.ip + ": is no address";
            return false;
        }
        CRtspSvr* server = CRtspSvr::Create(address);
        if (server == nullptr) {
            error =
                listen.ip + " port " + std::to_string(listen.port) + ": cannot be listened on: " + std::strerror(errno);
            return false;
        }
        server->SetLiveSvr(m_live_svr);
        server->SetConfig(m_config);
        m_servers.push_back(server);
        return true;
    }

    bool open_nat(const Options& options, std::string& error) {
        m_nat = std::make_unique<NatEntrance>(*m_servers.front());
        error = options.nat_point + ": cannot be registered at as " + options.nat_name;
        return m_nat->Open(options.nat_point, options.nat_name);
    }

    CRtspSvrConfig m_config;
    CLiveSvr* m_live_svr = nullptr;
    std::vector<CRtspSvr*> m_servers;
    std::unique_ptr<NatEntrance> m_nat;
    std::vector<std::string> m_published;
};

// Readers of our output may go, which writes then tell.
sigset_t block_signals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Sessions come and go on all threads of the pool. With an arena of the heap for each thread every one of them would
// grow to the size of all sessions, and none shrink.
void share_one_heap() {
#ifdef M_ARENA_MAX
    mallopt(M_ARENA_MAX, 1);
#endif
}

// A session takes a descriptor, and three over UDP; the usual soft limit is good for a few hundred.
void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Until SIGINT or SIGTERM comes.
void wait_for_end(const sigset_t& signals, int stats_sec, Monitor& monitor) {
    if (stats_sec <= 0) {
        while (sigwaitinfo(&signals, nullptr) < 0) {
            // a process that was stopped and goes on is interrupted
        }
        return;
    }
    const timespec period = {stats_sec, 0};
    while (sigtimedwait(&signals, nullptr, &period) < 0) {
        monitor.PrintFigures(stats_sec);
    }
}

int fail(const std::string& error) {
    std::fprintf(stderr, "vidora-host: %s\n", error.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int exit_code = 0;
    if (!ParseOptions(argc, argv, options, exit_code)) {
        return exit_code;
    }
    set_log_level(options.log_level);
    share_one_heap();
    raise_descriptor_limit();
    std::string error;
    Catalog catalog;
    if (!catalog.Load(options, error)) {
        return fail(error);
    }
    if (!options.make_kav.empty()) {
        return catalog.WriteKav(options.live.front().content, options.make_kav, error) ? 0 : fail(error);
    }
    Credentials credentials;
    credentials.Set(options.users, options.realm, options.nonce_sec);
    g_catalog = &catalog;
    g_credentials = &credentials;

    // Blocked before any thread starts, so that only the wait below sees them.
    const sigset_t signals = block_signals();
    Monitor monitor(options.json);
    g_monitor = &monitor;
    {
        Host host;
        if (!host.Open(options, error)) {
            return fail(error);
        }
        for (const ListenOption& listen : options.listen) {
            monitor.Listening(listen.ip, listen.port);
        }
        if (options.live.empty() && options.recordings.empty() && options.proxy_to.empty()) {
            std::fprintf(stderr, "vidora-host: nothing is published: see --live, --recordings and --proxy-to\n");
        }
        wait_for_end(signals, options.stats_sec, monitor);
        // A second signal ends the process at once.
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
    return 0;
}
