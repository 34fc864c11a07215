#ifndef VIDORA_PULL_OPTIONS_H
#define VIDORA_PULL_OPTIONS_H

#include <string>

#include "Vidora/Types.h"

struct Options {
    std::string url;
    std::string transport = "tcp";  // tcp, udp, multicast
    Kavio::Vidora::packet_type_t kind = Kavio::Vidora::PACKET_TYPE_NONE;
    std::string nat_point;  // "host:port" of the rendezvous; empty: no NAT
    std::string nat_name;   // of the device there
    std::string user;
    std::string password;
    double seconds = 0.0;  // of media, 0 for until it ends
    double start = -1.0;   // of a recording; below 0: not given
    double end = 0.0;      // 0: not given
    double speed = 1.0;
    std::string out;           // file, empty for none
    std::string back_channel;  // file, empty for none
    double idle_sec = 10.0;    // 0 for never
    std::string log_level = "none";
    bool json = false;
};

// Reads the command line. True to go on; false to end with `exit_code` (help, or a mistake that was told).
bool ParseOptions(int argc, char** argv, Options& options, int& exit_code);

#endif  // VIDORA_PULL_OPTIONS_H
