#ifndef VIDORA_TESTS_SUPPORT_FAKESTREAMSOURCE_H
#define VIDORA_TESTS_SUPPORT_FAKESTREAMSOURCE_H

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "Vidora/Names.h"
#include "Vidora/StreamSource.h"
#include "support/GuardedList.h"

namespace Kavio::Support {

// CFakeStreamSource: a host source that a test drives by hand: it gives frames when Give is called, fails where it is
// told to, and records the calls that it gets.
//
// THREADING  Calls of the library: any thread; the record is guarded. Give: one thread at a time.
class CFakeStreamSource : public Vidora::CStreamSource {
public:
    // How the next source that the factory makes behaves.
    struct Settings {
        Vidora::src_type_t type = Vidora::SRC_TYPE_LIVE;
        bool has_video = true;
        bool has_audio = false;
        Vidora::StreamVideoFormat video;
        Vidora::StreamAudioFormat audio;
        std::string specific_info;
        bool tells_info = true;   // sends MSG_STREAM_INFO in Init
        bool init_fails = false;  // after it has told
        bool start_fails = false;
        bool seek_fails = false;
        bool update_fails = false;
        bool ends_in_calls = false;      // tells the end of what it played before in Pause and in a seek
        std::function<void()> in_start;  // what the host does besides
        bool null_source = false;        // the factory gives null
        uint64_t key_sec = 1;            // begins with a second of which this is a divisor
        uint64_t length_us = 12500000;
        Vidora::CTime begin = Vidora::CTime(1600000000);
        Vidora::CTime end = Vidora::CTime(1600000012);
    };

    typedef std::function<void(Settings& settings)> change_t;
    // H.264 video, as BuildFrame makes it, live or as a recording of 12.5 seconds, with what `change` makes of it.
    static Settings LiveVideo(const change_t& change = nullptr);
    static Settings FileVideo(const change_t& change = nullptr);
    // What the factory's next sources are like.
    static void SetNext(const Settings& settings);
    // A source like that.
    static CFakeStreamSource* Make(const Settings& settings) { return new CFakeStreamSource(settings); }
    // A factory for CRtspSvrConfig: makes the next one.
    static Vidora::CStreamSource* Factory(const char* content);
    // The youngest source that lives, or null.
    static CFakeStreamSource* Last();
    // Sources that live now.
    static int LiveCount();
    // Calls `function` for each source that lives; none of them goes meanwhile.
    static void ForEach(const std::function<void(CFakeStreamSource&)>& function);

    // Gives a frame to the receiver, as the host's thread; false if the source isn't started.
    bool Give(const Flumen::CMediaFrame& frame);
    // Sends a message to the receiver.
    void Tell(unsigned int msg) { Notify(m_receiver_id, msg, 0); }
    void SetVideo(const Vidora::StreamVideoFormat& format);
    void SetPacketState(int state) { m_packet_state = state; }

    // The calls so far, in order: "Start", "Stop", "Pause", "Resume", "SetIFrame", "Seek 1600000003", ...
    std::vector<std::string> Calls() const { return m_calls.All(); }
    int CountCalls(const std::string& name) const { return m_calls.Count(name); }

    int Init(long receiver_id, int ext) override;
    Vidora::src_type_t GetSrcType() override { return m_settings.type; }
    bool HasVideo() override { return m_settings.has_video; }
    bool HasAudio() override { return m_settings.has_audio; }
    void GetAudioFormat(Vidora::StreamAudioFormat& format) override { format = m_settings.audio; }
    void GetVideoFormat(Vidora::StreamVideoFormat& format) override;
    int GetVideoSpecificInfo(char* buf, int len) override;
    int UpdataStreamInfo(long arg) override;
    bool Start(frame_proc_t proc) override;
    bool Stop(frame_proc_t proc) override;
    bool Pause() override;
    bool Resume() override { return record("Resume"); }
    bool SetSpeed(float speed) override { return record("SetSpeed " + std::to_string(speed)); }
    bool SeekByTime(const Vidora::CTime& time) override;
    bool GetTime(Vidora::CTime& time) override;
    bool GetFileRange(Vidora::CTime& begin, Vidora::CTime& end) override;
    bool GetFileRange(uint64_t& length_us) override;
    void SetIFrame() override { record("SetIFrame"); }
    bool getPacketType(int& packet_state) override;
    int handle_close(Vidora::CNetHandler* handler) override;

private:
    explicit CFakeStreamSource(const Settings& settings);
    ~CFakeStreamSource() override;
    bool record(const std::string& call) { return m_calls.Add(call), true; }

    Settings m_settings;
    std::atomic<uint64_t> m_sought{0};
    std::atomic<long> m_receiver_id{0};
    Vidora::CMutex m_mutex;       // guards the video format
    Vidora::CMutex m_give_mutex;  // held while a frame is given, so that Stop waits for it
    frame_proc_t m_proc;
    CGuardedList<std::string> m_calls;
    std::atomic<int> m_packet_state{0};
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_FAKESTREAMSOURCE_H
