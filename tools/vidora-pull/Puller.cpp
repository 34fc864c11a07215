#include "Puller.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Vidora/KXFrame.h"
#include "Vidora/SdpInfo.h"
#include "Vidora/Tramel/MediaBuffer.h"

using namespace Kavio::Vidora;
using std::chrono::duration;

namespace {

const size_t BACK_CHANNEL_BLOCK = 320;  // 40 ms of 8000 Hz
const int64_t BACK_CHANNEL_PERIOD_US = 40000;
const double END_SLACK_SEC = 2.0;

// What failed, in words. An error status is told by its number besides.
const struct {
    int number;  // of rtsp_client_failure_t
    const char* words;
} FAILURES[] = {{RTSP_CLIENT_FAILURE_NAME, "the host name has no address"},
                {RTSP_CLIENT_FAILURE_REFUSED, "refused: nobody listens there"},
                {RTSP_CLIENT_FAILURE_UNREACHABLE, "unreachable"},
                {RTSP_CLIENT_FAILURE_TIMEOUT, "timed out: no connection"},
                {RTSP_CLIENT_FAILURE_LOST, "the connection was lost"},
                {RTSP_CLIENT_FAILURE_NO_REPLY, "timed out: no reply"},
                {RTSP_CLIENT_FAILURE_IDLE, "stream idle: no media came"},
                {RTSP_CLIENT_FAILURE_UNAUTHORISED, "unauthorised: user or password are missing or wrong"},
                {RTSP_CLIENT_FAILURE_PROTOCOL, "what the server said can't be used"}},
  STATUSES[] = {{403, "forbidden"},
                {404, "not found"},
                {454, "the server has ended the session"},
                {461, "unsupported transport"},
                {503, "service unavailable"}};

template <typename Table>
std::string find_words(const Table& table, int number, const std::string& otherwise) {
    for (const auto& row : table) {
        if (row.number == number) {
            return row.words;
        }
    }
    return otherwise;
}

std::string failure_words(rtsp_client_failure_t failure, long code) {
    if (failure == RTSP_CLIENT_FAILURE_STATUS) {
        const int status = static_cast<int>(code - RTSP_CLIENT_CODE_STATUS);
        return find_words(STATUSES, status, "an error") + " (status " + std::to_string(status) + ")";
    }
    return failure == RTSP_CLIENT_FAILURE_NONE ? "" : find_words(FAILURES, failure, "it failed");
}

char letter_of(const unsigned char* data, unsigned int size) {
    KXHeader header;
    if (!kx_read_header(data, size, header)) {
        return '?';
    }
    const int letter = header.frame_type == KX_TYPE_JPEG ? FRAME_TYPE_JPEG : kx_letter_of_type(header.frame_type);
    return letter == 0 ? '?' : static_cast<char>(letter);
}

}  // namespace

uint64_t PullFigures::Pictures() const {
    uint64_t count = 0;
    for (const auto& row : frames) {
        count += std::string("IPBJ").find(row.first) != std::string::npos ? row.second : 0;
    }
    return count;
}

bool Puller::Start(std::string& error) {
    if (!m_writer.Open(m_options.out, error) || !read_back_channel(error)) {
        return false;
    }
    m_begin = Clock::now();
    const std::lock_guard<std::mutex> guard(m_session_mutex);  // a notification waits until the session is known
    m_session = StartSession(m_options, GetID(), error);
    return m_session != nullptr;
}

bool Puller::read_back_channel(std::string& error) {
    if (m_options.back_channel.empty()) {
        return true;
    }
    std::ifstream file(m_options.back_channel, std::ios::binary);
    m_back_channel.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (m_back_channel.empty()) {
        error = m_options.back_channel + ": cannot be read, or is empty";
    }
    return !m_back_channel.empty();
}

bool Puller::Wait(double seconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, duration<double>(seconds), [this] { return m_ended; });
}

// The sink goes first, so that no frame is inside when the session has ended.
void Puller::Stop() {
    Figures();
    {
        const std::lock_guard<std::mutex> guard(m_session_mutex);
        if (m_session != nullptr) {
            m_session->GetMediaBuffer()->DelLevel2Buffer(m_sink.get());
            m_session.reset();
        }
        m_sink.reset();
    }
    if (!m_writer.Close()) {
        end_unwritten();
    }
    end("");
}

PullFigures Puller::Figures() {
    RtspClientStatistics statistics;
    if (m_session != nullptr) {
        m_session->GetStatistics(statistics);
    }
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_session != nullptr) {
        m_figures.packets = statistics.packets;
        m_figures.bytes = statistics.bytes;
        m_figures.lost = statistics.lost;
    }
    if (m_figures.first_frame_sec >= 0.0 && !m_ended) {
        m_figures.media_sec = duration<double>(Clock::now() - m_first_frame).count();
    }
    return m_figures;
}

int Puller::handle_message(long, unsigned int msg, long param) {
    const std::lock_guard<std::mutex> guard(m_session_mutex);
    if (m_session == nullptr) {
        return 0;
    }
    switch (msg) {
        case MSG_RTSP_SETUP_READY:
            on_setup_ready();
            break;
        case MSG_RTSP_PLAY_READY:
            on_play_ready();
            break;
        case MSG_RTSP_TEARDOWN:
            on_teardown(param);
            break;
        default:
            break;
    }
    return 0;
}

// A redirect brings a second description, and with it another sink.
void Puller::on_setup_ready() {
    CSdpInfo* sdp = m_session->GetSdpInfo();
    std::string error;
    const char* name = sdp != nullptr ? sdp->GetPayloadNameEx('V') : nullptr;
    const std::string video = name != nullptr ? name : "";
    const char* audio = sdp != nullptr ? sdp->GetPayloadNameEx('A') : nullptr;
    if (sdp != nullptr && !m_writer.Begin(name != nullptr ? video.c_str() : nullptr, audio, error)) {
        end(error);
        return;
    }
    auto sink = std::make_unique<CRtspClientBuffer>(&Puller::on_frame, nullptr, this);
    if (sink->GetFrameBuffer().Init(sdp, 0, 0) < 0) {
        end("the description has neither pictures nor sound");
        return;
    }
    float duration_sec = 0.0F;
    m_duration_sec = sdp != nullptr && sdp->GetDuration(duration_sec) == 0 ? static_cast<double>(duration_sec) : 0.0;
    m_session->GetMediaBuffer()->DelLevel2Buffer(m_sink.get());
    m_sink = std::move(sink);
    m_session->GetMediaBuffer()->AddLevel2Buffer(m_sink.get());
    const double begin = m_options.start < 0.0 && m_options.end > 0.0 ? 0.0 : m_options.start;
    m_session->Play(static_cast<float>(begin), static_cast<float>(m_options.end), static_cast<float>(m_options.speed));
}

void Puller::on_play_ready() {
    if (!m_back_channel.empty() && m_back_timer == 0) {
        m_back_timer = SetTimer(BACK_CHANNEL_PERIOD_US);
    }
}

// The next block of the back channel.
int64_t Puller::handle_timeout(long timer_id) {
    const std::lock_guard<std::mutex> guard(m_session_mutex);
    const size_t size = std::min(BACK_CHANNEL_BLOCK, m_back_channel.size() - m_back_offset);
    if (size == 0 || m_session == nullptr) {
        DestroyTimer(timer_id);
        return 0;
    }
    m_session->Put(m_back_channel.data() + m_back_offset, static_cast<int>(size));
    m_back_offset += size;
    return 0;
}

void Puller::on_frame(const unsigned char* data, unsigned int size, void* user) {
    static_cast<Puller*>(user)->take_frame(data, size);
}

void Puller::take_frame(const unsigned char* data, unsigned int size) {
    const char letter = letter_of(data, size);
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_figures.first_frame_sec < 0.0) {
            m_first_frame = Clock::now();
            m_figures.first_frame_sec = duration<double>(m_first_frame - m_begin).count();
            m_changed.notify_all();
        }
        m_last_frame = Clock::now();
        ++m_figures.frames[letter];
    }
    if (!m_writer.Write(letter, data, size)) {
        end_unwritten();
    }
}

void Puller::end_unwritten() {
    end(m_options.out + ": cannot be written: " + std::strerror(errno));
}

void Puller::on_teardown(long code) {
    const rtsp_client_failure_t failure = m_session->GetFailure();
    const bool may_be_end = failure == RTSP_CLIENT_FAILURE_LOST || failure == RTSP_CLIENT_FAILURE_IDLE;
    const bool is_end = may_be_end && has_come_whole();
    end(is_end ? "" : failure_words(failure, code));
}

// Servers that send no BYE, and those of private frames, tell the end of a recording by closing the connection; through
// NATs they fall silent. Did what was asked for play as long as it should? A server may begin a while later, with the
// next key frame.
bool Puller::has_come_whole() {
    const double end_sec = m_options.end > 0.0 ? std::min(m_options.end, m_duration_sec) : m_duration_sec;
    const double length_sec = (end_sec - std::max(m_options.start, 0.0)) / std::abs(m_options.speed);
    const std::lock_guard<std::mutex> guard(m_mutex);
    const double played_sec = duration<double>(m_last_frame - m_begin).count();
    return m_duration_sec > 0.0 && played_sec > length_sec - END_SLACK_SEC;
}

// The first failure counts.
void Puller::end(const std::string& failure) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (!m_ended && m_figures.first_frame_sec >= 0.0) {
        m_figures.media_sec = duration<double>(Clock::now() - m_first_frame).count();
    }
    if (m_figures.failure.empty()) {
        m_figures.failure = failure;
    }
    m_ended = true;
    m_changed.notify_all();
}
