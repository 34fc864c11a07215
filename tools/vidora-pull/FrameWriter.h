#ifndef VIDORA_PULL_FRAMEWRITER_H
#define VIDORA_PULL_FRAMEWRITER_H

#include <cstdio>
#include <string>

// FrameWriter: writes the frames of a stream to a file, in the form that its ending names: whole private frames (.kav),
// or the bare payload of the pictures (.h264, .mjpeg) or the sound (.alaw). It begins with the first key frame, if the
// stream has pictures, as those in front of it refer to what hasn't come.
//
// THREADING  One thread at a time.
class FrameWriter {
public:
    FrameWriter() = default;
    ~FrameWriter();
    FrameWriter(const FrameWriter&) = delete;
    FrameWriter& operator=(const FrameWriter&) = delete;

    // False, with `error`, for an unknown ending or a file that can't be written. An empty path is for no file.
    bool Open(const std::string& path, std::string& error);
    // Tells the encoding names of RTP ("H264") of the stream's pictures and sound, null for none. False, with `error`,
    // if the file is for something else.
    bool Begin(const char* video_name, const char* audio_name, std::string& error);
    // Writes a private frame of that letter, if it belongs into the file. False if the disk took it not.
    bool Write(int letter, const unsigned char* frame, unsigned int size);
    // False if not all of it could be written.
    bool Close();

private:
    struct Form;
    static const Form FORMS[];

    bool is_wanted(int letter) const;

    FILE* m_file = nullptr;
    const Form* m_form = nullptr;
    bool m_waits_for_key = false;
};

#endif  // VIDORA_PULL_FRAMEWRITER_H
