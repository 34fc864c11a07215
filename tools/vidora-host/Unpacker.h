#ifndef VIDORA_HOST_UNPACKER_H
#define VIDORA_HOST_UNPACKER_H

#include <cstddef>
#include <string>
#include <vector>

// Files with a container around their streams (MP4, MKV, MPEG-TS), unpacked by the ffmpeg program, which runs as a
// child process and tells its own reasons on standard error.

// H.264 as a byte stream, picture by picture in decoding order.
struct UnpackedVideo {
    struct Picture {
        size_t size = 0;       // bytes
        double time_ms = 0.0;  // when it is shown
    };
    std::vector<unsigned char> bytes;  // the pictures one behind the other
    std::vector<Picture> pictures;
};

// Does a file have one of those containers, by its ending?
bool IsContainer(const std::string& path);
// The first video stream. False, with `error` saying why, if there is none, it isn't H.264, or ffmpeg isn't installed.
bool UnpackVideo(const std::string& path, UnpackedVideo& video, std::string& error);
// The first audio stream as G.711 A-law, 8 kHz, from the file's beginning on; empty if there is none. False as above.
bool UnpackAudio(const std::string& path, std::vector<unsigned char>& bytes, std::string& error);

#endif  // VIDORA_HOST_UNPACKER_H
