#ifndef VIDORA_HOST_OPTIONS_H
#define VIDORA_HOST_OPTIONS_H

#include <string>
#include <vector>

// One --live option: NAME=FILE[,AUDIOFILE].
struct LiveOption {
    std::string name;     // what URLs call it
    std::string content;  // what it is published as: the name itself, or a free channel's content
    std::string video_file;
    std::string audio_file;
};

// One --multicast option: NAME=GROUP:PORT[,rtp|ts].
struct MulticastOption {
    std::string name;
    std::string group;
    unsigned short port = 0;
    bool is_ts = false;
};

// One --listen option.
struct ListenOption {
    std::string ip;
    unsigned short port = 0;
};

// One --user option.
struct UserOption {
    std::string name;
    std::string password;
};

// One --proxy-to option; port 0: any.
struct ProxyOption {
    std::string host;
    unsigned short port = 0;
};

struct Options {
    std::vector<ListenOption> listen;
    std::vector<LiveOption> live;
    std::vector<MulticastOption> multicast;
    std::vector<UserOption> users;
    std::vector<ProxyOption> proxy_to;
    std::string recordings;  // folder, empty for none
    std::string realm = "Vidora";
    std::string multicast_if;  // address of the interface, empty for the system's choice
    std::string nat_point;     // "HOST:PORT" of a rendezvous, empty for none
    std::string nat_name;      // there
    std::string log_level = "warn";
    std::string make_kav;  // write the one --live stream to this file and end
    int threads = 4;
    int timeout_sec = 60;
    int min_rtp_port = 20000;
    int max_rtp_port = 40000;
    int dscp = 0;
    double fps = 25.0;
    int stats_sec = 0;    // 0 for none
    int nonce_sec = 300;  // how long a nonce of Digest authentication lives
    bool json = false;
    bool as_described = false;  // the library's own ways where they differ from the standards
};

// Reads the command line. True to go on; false to end with `exit_code` (help, or a mistake that was told).
bool ParseOptions(int argc, char** argv, Options& options, int& exit_code);

#endif  // VIDORA_HOST_OPTIONS_H
