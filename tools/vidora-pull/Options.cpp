#include "Options.h"

#include <CLI/CLI.hpp>
#include <map>

using namespace Kavio::Vidora;

bool ParseOptions(int argc, char** argv, Options& options, int& exit_code) {
    CLI::App app(
        "vidora-pull: pulls a stream from an RTSP server, and tells what came. The exit code is 0 if media came and "
        "nothing failed.",
        "vidora-pull");
    const std::map<std::string, packet_type_t> kinds = {
        {"auto", PACKET_TYPE_NONE}, {"rtp", PACKET_TYPE_RTP}, {"kx", PACKET_TYPE_KX}};
    app.add_option("URL", options.url, "rtsp://[user:password@]host[:port]/path")->required();
    app.add_option("--transport", options.transport, "tcp, udp or multicast: how media come")
        ->check(CLI::IsMember({"tcp", "udp", "multicast"}))
        ->capture_default_str();
    app.add_option("--kind", options.kind,
                   "rtp, kx (private frames, over tcp only), or auto: what the server's description offers")
        ->transform(CLI::CheckedTransformer(kinds).description(""))
        ->type_name("TEXT:{auto,rtp,kx}")
        ->default_str("auto");
    CLI::Option* point = app.add_option("--nat", options.nat_point,
                                        "host:port of a rendezvous: meets a device behind a NAT there, and pulls RTP "
                                        "through the way that they open; the URL's host and port don't matter then");
    CLI::Option* name = app.add_option("--nat-name", options.nat_name, "and the name of the device");
    point->needs(name);
    name->needs(point);
    app.add_option("--user", options.user, "user, if the server asks for one");
    app.add_option("--password", options.password, "and the password");
    app.add_option("--seconds", options.seconds, "ends that long after the first frame (default: when the stream ends)")
        ->check(CLI::Range(0.0, 1e7));
    app.add_option("--start", options.start, "seconds from a recording's beginning where to begin")
        ->check(CLI::Range(0.0, 1e7));
    app.add_option("--end", options.end, "and where to end")->check(CLI::Range(0.0, 1e7));
    app.add_option("--speed", options.speed,
                   "rate of a recording: 2.0 is twice as fast; below 0 from --end back to --start")
        ->check([](const std::string& text) { return std::atof(text.c_str()) == 0.0 ? "is no rate" : ""; })
        ->capture_default_str();
    app.add_option("--out", options.out,
                   "file to write: .kav (whole frames, which vidora-host can play), .h264, .mjpeg or .alaw");
    app.add_option("--back-channel", options.back_channel,
                   "sends this .alaw file (8000 Hz) to the device's loudspeaker; over udp")
        ->check(CLI::ExistingFile);
    app.add_option("--idle-timeout", options.idle_sec,
                   "seconds without media after which the stream fails, 0 for never")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    app.add_flag("--json", options.json, "prints the summary as one JSON object, and nothing else");
    app.add_option("--log", options.log_level, "what the library logs on standard error")
        ->check(CLI::IsMember({"none", "error", "warn", "info", "debug", "trace"}))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
        if (!options.back_channel.empty() && options.transport != "udp") {
            throw CLI::ValidationError("--back-channel", "goes over --transport udp only");
        }
        if (!options.nat_point.empty() && (options.transport != "tcp" || options.kind == PACKET_TYPE_KX)) {
            throw CLI::ValidationError("--nat", "has a transport of its own, and carries RTP only");
        }
    } catch (const CLI::ParseError& error) {
        exit_code = app.exit(error);
        return false;
    }
    return true;
}
