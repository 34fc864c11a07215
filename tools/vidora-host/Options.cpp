#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>
#include <set>

#include "Vidora/RtspUrlParser.h"

namespace {

// Splits at the last `separator`; false if a side is empty.
bool split_last(const std::string& text, char separator, std::string& left, std::string& right) {
    const size_t at = text.rfind(separator);
    if (at == std::string::npos || at == 0 || at + 1 == text.size()) {
        return false;
    }
    left = text.substr(0, at);
    right = text.substr(at + 1);
    return true;
}

bool parse_port(const std::string& text, unsigned short& port) {
    int value = 0;
    if (!CLI::detail::lexical_cast(text, value) || value < 1 || value > 65535) {
        return false;
    }
    port = static_cast<unsigned short>(value);
    return true;
}

std::string strip_brackets(const std::string& ip) {
    return ip.size() > 1 && ip.front() == '[' && ip.back() == ']' ? ip.substr(1, ip.size() - 2) : ip;
}

ListenOption parse_listen(const std::string& text) {
    ListenOption option;
    std::string ip;
    std::string port;
    if (!split_last(text, ':', ip, port) || !parse_port(port, option.port)) {
        throw CLI::ValidationError("--listen", "wants ADDR:PORT, not " + text);
    }
    option.ip = strip_brackets(ip);
    return option;
}

// The last "=" separates, since a name may hold several.
LiveOption parse_live(const std::string& text) {
    LiveOption option;
    std::string files;
    if (!split_last(text, '=', option.name, files)) {
        throw CLI::ValidationError("--live", "wants NAME=FILE[,AUDIOFILE], not " + text);
    }
    if (!split_last(files, ',', option.video_file, option.audio_file)) {
        option.video_file = files;
    }
    return option;
}

MulticastOption parse_multicast(const std::string& text) {
    MulticastOption option;
    std::string target;
    std::string kind;
    std::string port;
    if (!split_last(text, '=', option.name, target)) {
        throw CLI::ValidationError("--multicast", "wants NAME=GROUP:PORT[,rtp|ts], not " + text);
    }
    std::string address = target;
    if (split_last(target, ',', address, kind) && kind != "rtp" && kind != "ts") {
        throw CLI::ValidationError("--multicast", "knows rtp and ts, not " + kind);
    }
    option.is_ts = kind == "ts";
    if (!split_last(address, ':', option.group, port) || !parse_port(port, option.port)) {
        throw CLI::ValidationError("--multicast", "wants GROUP:PORT, not " + address);
    }
    option.group = strip_brackets(option.group);
    return option;
}

UserOption parse_user(const std::string& text) {
    UserOption option;
    const size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0) {
        throw CLI::ValidationError("--user", "wants NAME:PASSWORD");
    }
    option.name = text.substr(0, colon);
    option.password = text.substr(colon + 1);
    return option;
}

ProxyOption parse_proxy(const std::string& text) {
    ProxyOption option;
    std::string port;
    const bool is_bare_ipv6 = text.front() != '[' && std::count(text.begin(), text.end(), ':') > 1;
    if (is_bare_ipv6 || !split_last(text, ':', option.host, port) || option.host.back() == ':') {
        option.host = text;
    } else if (!parse_port(port, option.port)) {
        option.host = text;
    }
    option.host = strip_brackets(option.host);
    return option;
}

void parse_ports(const std::string& text, Options& options) {
    std::string low;
    std::string high;
    unsigned short min_port = 0;
    unsigned short max_port = 0;
    if (!split_last(text, '-', low, high) || !parse_port(low, min_port) || !parse_port(high, max_port) ||
        min_port >= max_port) {
        throw CLI::ValidationError("--rtp-ports", "wants MIN-MAX with MIN below MAX, not " + text);
    }
    options.min_rtp_port = min_port;
    options.max_rtp_port = max_port;
}

// Options whose values have a form of their own, as they are given.
struct FormedOptions {
    std::vector<std::string> listen;
    std::vector<std::string> live;
    std::vector<std::string> multicast;
    std::vector<std::string> users;
    std::vector<std::string> proxy_to;
    std::string ports;
};

void add_server_options(CLI::App& app, Options& options, FormedOptions& formed) {
    app.add_option("--listen", formed.listen, "ADDR:PORT to listen on, repeatable (default [::]:8554)")
        ->allow_extra_args(false);
    app.add_option("--threads", options.threads, "threads of the reactor")
        ->check(CLI::Range(1, 256))
        ->capture_default_str();
    app.add_option("--timeout", options.timeout_sec, "seconds of silence after which a session ends, 0 for never")
        ->check(CLI::Range(0, 86400))
        ->capture_default_str();
    app.add_option("--rtp-ports", formed.ports, "MIN-MAX, local ports for UDP media (default 20000-40000)");
    app.add_flag("--as-described", options.as_described,
                 "where the library's own ways on the wire differ from the standards, its own, for old clients of its "
                 "kind; the standards' otherwise");
    app.add_option("--dscp", options.dscp, "DSCP value of UDP media, 0 for none")->check(CLI::Range(0, 63));
}

void add_content_options(CLI::App& app, Options& options, FormedOptions& formed) {
    app.add_option("--live", formed.live,
                   "NAME=FILE[,AUDIOFILE], repeatable: FILE (.h264 .m4v .mjpeg .kav, and .mp4 .mkv .ts if the ffmpeg "
                   "program is installed) with AUDIOFILE (.alaw .ulaw .mp2) in a loop in real time; NAME is what "
                   "stands in URLs, for example front-door")
        ->allow_extra_args(false);
    app.add_option("--fps", options.fps, "frame rate of .h264, .m4v and .mjpeg files")
        ->check(CLI::Range(0.1, 240.0))
        ->capture_default_str();
    app.add_option(
           "--recordings", options.recordings,
           "folder of recordings: NAME.kav is served as NAME.kav, C_S_*.kav also as "
           "cam/playback?channel=C&subtype=S&starttime=T&endtime=T, T being UTC as 2020_09_13_12_26_40; links out of "
           "the folder are refused")
        ->check(CLI::ExistingDirectory);
}

void add_access_options(CLI::App& app, Options& options, FormedOptions& formed) {
    app.add_option("--user", formed.users,
                   "NAME:PASSWORD, repeatable: asks every client for Digest or Basic authentication")
        ->allow_extra_args(false);
    app.add_option("--proxy-to", formed.proxy_to,
                   "HOST[:PORT], repeatable: clients may ask for CONTENT?proxy=HOST:PORT, which relays that server; "
                   "none without this option")
        ->allow_extra_args(false);
    app.add_option("--realm", options.realm, "realm of the authentication")->capture_default_str();
    app.add_option("--nonce-lifetime", options.nonce_sec, "seconds that a nonce is good for")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
}

void add_multicast_options(CLI::App& app, Options& options, FormedOptions& formed) {
    app.add_option(
           "--multicast", formed.multicast,
           "NAME=GROUP:PORT[,rtp|ts], repeatable: sends a live stream to a group (default rtp); it is then served by "
           "multicast only")
        ->allow_extra_args(false);
    app.add_option("--multicast-if", options.multicast_if, "address of the interface that multicast leaves by");
}

void add_nat_options(CLI::App& app, Options& options) {
    CLI::Option* point =
        app.add_option("--nat", options.nat_point,
                       "HOST:PORT of a rendezvous, by which viewers behind address translation come in; see "
                       "examples/nat_pair.cpp");
    CLI::Option* name = app.add_option("--nat-name", options.nat_name, "name that viewers ask the rendezvous for");
    point->needs(name);
    name->needs(point);
}

void add_output_options(CLI::App& app, Options& options) {
    app.add_option("--stats", options.stats_sec, "prints figures every SECONDS")->check(CLI::Range(0, 86400));
    app.add_flag("--json", options.json, "prints figures and events as JSON lines, and nothing else");
    app.add_option("--log", options.log_level, "what is logged")
        ->check(CLI::IsMember({"error", "warn", "info", "debug", "trace"}))
        ->capture_default_str();
    app.add_option("--make-kav", options.make_kav, "writes the stream of the one --live option to this file and ends");
}

template <typename Option>
std::vector<Option> read_each(const std::vector<std::string>& texts, Option (*read)(const std::string&)) {
    std::vector<Option> values;
    std::transform(texts.begin(), texts.end(), std::back_inserter(values), read);
    return values;
}

bool is_live(const Options& options, const std::string& name) {
    return std::any_of(options.live.begin(), options.live.end(),
                       [&](const LiveOption& live) { return live.name == name; });
}

// Signs of a path and a query (RFC 3986 3.3, 3.4); a slash at an end would be lost on the way.
bool fits_url(const std::string& name) {
    static const char OTHER_SIGNS[] = "-._~!$&'()*+,;=:@%/?";
    return name.front() != '/' && name.back() != '/' && std::all_of(name.begin(), name.end(), [](char sign) {
               return std::isalnum(static_cast<unsigned char>(sign)) != 0 || std::strchr(OTHER_SIGNS, sign) != nullptr;
           });
}

// Each name is published once and can be asked for, and what goes to a group is published.
void check_names(const Options& options) {
    for (const LiveOption& live : options.live) {
        const auto same = [&](const LiveOption& other) { return other.name == live.name; };
        if (std::count_if(options.live.begin(), options.live.end(), same) > 1) {
            throw CLI::ValidationError("--live", "publishes " + live.name + " twice");
        }
        if (!fits_url(live.name)) {
            throw CLI::ValidationError("--live", "wants a name that a URL can hold (others as %XX), not " + live.name);
        }
    }
    for (const MulticastOption& multicast : options.multicast) {
        if (!is_live(options, multicast.name)) {
            throw CLI::ValidationError("--multicast", "sends " + multicast.name + ", which no --live publishes");
        }
    }
}

// Does a name read as the library wants the contents of channels?
bool is_channel(const std::string& name) {
    Kavio::Vidora::CRtspUrlParser parser;
    unsigned int length = static_cast<unsigned int>(name.size());
    return parser.ParseContent(name.c_str(), length) && parser.GetIdentifier() != nullptr;
}

// Any other name stands for a channel that no option names.
void assign_channels(Options& options) {
    std::set<std::string> taken;
    for (const LiveOption& live : options.live) {
        taken.insert(live.name);
    }
    int number = 0;
    for (LiveOption& live : options.live) {
        live.content = live.name;
        while (!is_channel(live.name) && !taken.insert(live.content).second) {
            live.content = "cam/realmonitor?channel=" + std::to_string(++number) + "&subtype=0";
        }
    }
}

void read_formed(const FormedOptions& formed, Options& options) {
    options.listen = read_each(formed.listen, parse_listen);
    options.live = read_each(formed.live, parse_live);
    options.multicast = read_each(formed.multicast, parse_multicast);
    options.users = read_each(formed.users, parse_user);
    options.proxy_to = read_each(formed.proxy_to, parse_proxy);
    if (!formed.ports.empty()) {
        parse_ports(formed.ports, options);
    }
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options& options, int& exit_code) {
    CLI::App app("vidora-host: publishes files as live RTSP streams and serves recordings.", "vidora-host");
    FormedOptions formed;
    add_server_options(app, options, formed);
    add_content_options(app, options, formed);
    add_access_options(app, options, formed);
    add_multicast_options(app, options, formed);
    add_nat_options(app, options);
    add_output_options(app, options);
    try {
        app.parse(argc, argv);
        read_formed(formed, options);
        check_names(options);
        assign_channels(options);
        if (!options.make_kav.empty() && options.live.size() != 1) {
            throw CLI::ValidationError("--make-kav", "wants exactly one --live");
        }
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error);
        return false;
    }
    if (options.listen.empty()) {
        options.listen.push_back(ListenOption{"::", 8554});
    }
    return true;
}
