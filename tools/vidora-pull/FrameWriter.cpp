#include "FrameWriter.h"

#include <strings.h>

#include <cerrno>
#include <cstring>

#include "Vidora/KXFrame.h"
#include "Vidora/Types.h"

using namespace Kavio::Vidora;

// What a kind of file takes.
struct FrameWriter::Form {
    const char* ending;
    const char* encoding;  // of RTP, null for any
    const char* letters;
    const char* what;
};

const FrameWriter::Form FrameWriter::FORMS[] = {{".kav", nullptr, "IPBJAW", "frames"},
                                                {".h264", "H264", "IPB", "H.264 pictures"},
                                                {".mjpeg", "JPEG", "J", "JPEG pictures"},
                                                {".alaw", "PCMA", "A", "A-law sound"}};

FrameWriter::~FrameWriter() {
    Close();
}

bool FrameWriter::Open(const std::string& path, std::string& error) {
    if (path.empty()) {
        return true;
    }
    for (const Form& form : FORMS) {
        const size_t length = std::strlen(form.ending);
        if (path.size() > length && strcasecmp(path.c_str() + path.size() - length, form.ending) == 0) {
            m_form = &form;
        }
    }
    if (m_form == nullptr) {
        error = path + ": is no .kav, .h264, .mjpeg or .alaw file";
        return false;
    }
    m_file = std::fopen(path.c_str(), "wbe");
    if (m_file == nullptr) {
        error = path + ": cannot be written: " + std::strerror(errno);
    }
    return m_file != nullptr;
}

bool FrameWriter::Begin(const char* video_name, const char* audio_name, std::string& error) {
    if (m_form == nullptr) {
        return true;
    }
    const bool is_sound = std::strcmp(m_form->letters, "A") == 0;
    const char* name = is_sound ? audio_name : video_name;
    if (m_form->encoding != nullptr && (name == nullptr || strcasecmp(name, m_form->encoding) != 0)) {
        error = std::string("the stream has no ") + m_form->what;
        return false;
    }
    m_waits_for_key = !is_sound && video_name != nullptr;
    return true;
}

bool FrameWriter::is_wanted(int letter) const {
    const bool is_key = letter == FRAME_TYPE_I || letter == FRAME_TYPE_JPEG;
    return letter != 0 && std::strchr(m_form->letters, letter) != nullptr && (is_key || !m_waits_for_key);
}

bool FrameWriter::Write(int letter, const unsigned char* frame, unsigned int size) {
    if (m_file == nullptr || !is_wanted(letter)) {
        return true;
    }
    m_waits_for_key = false;
    int length = static_cast<int>(size);
    int offset = 0;
    if (m_form->encoding != nullptr) {
        offset = get_frame_body(frame, static_cast<int>(size), length);
    }
    return std::fwrite(frame + offset, 1, static_cast<size_t>(length), m_file) == static_cast<size_t>(length);
}

bool FrameWriter::Close() {
    const bool is_whole = m_file == nullptr || std::fclose(m_file) == 0;
    m_file = nullptr;
    return is_whole;
}
