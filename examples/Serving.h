#ifndef VIDORA_EXAMPLES_SERVING_H
#define VIDORA_EXAMPLES_SERVING_H

#include <cstdlib>
#include <iostream>

#include "Vidora/Vidora.h"

// What the example servers have in common: they listen on a port of the loopback address until an empty line ends them.

// The port that the first of two arguments gives; 0, with the usage on the standard error, if it gives none, or if the
// second one is no good.
inline int port_of(int argc, char** argv, const char* usage, bool (*is_good)(const char*)) {
    const int port = argc > 2 ? std::atoi(argv[1]) : 0;
    if (port < 1 || port > 65535 || !is_good(argv[2])) {
        std::cerr << "usage: " << usage << std::endl;
        return 0;
    }
    return port;
}

// False if it can't listen there. `live` may be null.
inline bool serve(int port, const Kavio::Vidora::CRtspSvrConfig& config, Kavio::Vidora::CLiveSvr* live) {
    Kavio::Vidora::CSockAddrStorage address("127.0.0.1", static_cast<unsigned short>(port));
    Kavio::Vidora::CRtspSvr* server = Kavio::Vidora::CRtspSvr::Create(address);
    if (server == nullptr) {
        return false;
    }
    server->SetLiveSvr(live);
    server->SetConfig(config);
    std::cout << "listening on 127.0.0.1; an empty line ends" << std::endl;
    std::cin.get();
    server->Stop();  // no new sessions
    server->EndSessions(1000);
    server->Close();
    return true;
}

#endif  // VIDORA_EXAMPLES_SERVING_H
