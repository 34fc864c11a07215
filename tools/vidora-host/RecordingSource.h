#ifndef VIDORA_HOST_RECORDINGSOURCE_H
#define VIDORA_HOST_RECORDINGSOURCE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FramePump.h"
#include "RecordingStore.h"
#include "Vidora/StreamSource.h"

// RecordingSource: plays one stored file to one client, with pause, seek, any rate, and backwards (key frames only).
//
// The file is found and indexed by the store meanwhile; the source tells its format, or its failure, when that is done.
// Time stamps of the frames that go out run with real time whatever the rate, and go on over pauses and seeks. Those of
// B pictures, which stand behind the picture that they precede, step back to where they belong.
//
// THREADING  The library's calls leave orders under m_mutex; the pump's thread takes them, reads the file and gives the
//            frames with no lock held. What was opened is set on the source's strand, before its format is told.
class RecordingSource : public Kavio::Vidora::CStreamSource {
public:
    // `content` is for the log. `store` outlives the source.
    RecordingSource(RecordingStore& store, RecordingQuery query, std::string content, bool begins_before);

    int Init(long receiver_id, int ext) override;
    Kavio::Vidora::src_type_t GetSrcType() override { return Kavio::Vidora::SRC_TYPE_FILE; }
    bool HasVideo() override { return m_open != nullptr; }
    bool HasAudio() override { return m_open && recording().HasAudio(); }
    void GetAudioFormat(Kavio::Vidora::StreamAudioFormat& format) override;
    void GetVideoFormat(Kavio::Vidora::StreamVideoFormat& format) override;
    int GetVideoSpecificInfo(char* buf, int len) override;
    int UpdataStreamInfo(long arg) override;
    bool Start(frame_proc_t proc) override;
    bool Stop(frame_proc_t proc) override;
    bool Pause() override;
    bool Resume() override;
    bool SetSpeed(float speed) override;
    bool SeekByTime(const Kavio::Vidora::CTime& time) override;
    bool GetTime(Kavio::Vidora::CTime& time) override;
    bool GetSpeed(float& speed) override;
    bool GetFileRange(Kavio::Vidora::CTime& begin, Kavio::Vidora::CTime& end) override;
    bool GetFileRange(uint64_t& length_us) override;
    bool getPacketType(int& packet_state) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;

private:
    typedef FramePump::Clock Clock;
    class Answer;

    // What the calls want; a new one lets the next frame be due at once.
    struct Orders {
        bool paused = false;
        float speed = 1.0F;
        bool is_new = false;
        bool seeks = false;
        size_t seek_key = 0;  // with `seeks`
    };

    ~RecordingSource() override;

    const Recording& recording() const { return *m_open->recording; }
    const PlayWindow& window() const { return m_open->window; }
    const FramePlace& first() const { return recording().Keys()[window().first_key]; }
    template <typename Change>
    bool order(Change change);
    bool is_keys_only() const;
    bool is_sent(const FrameEntry& entry) const;

    // The pump's thread.
    Clock::time_point step(Clock::time_point now);
    void take_orders(const Orders& orders, Clock::time_point now);
    void find_next_key();
    bool fetch();
    bool fetch_key();
    bool fetch_in_row();
    double play_ms(const FrameEntry& entry) const;
    void give(const FrameEntry& entry, double pts_ms);
    bool read_body(const FrameEntry& entry);
    void give_end();

    RecordingStore& m_store;
    const RecordingQuery m_query;
    const std::string m_content;
    const bool m_begins_before;
    long m_receiver_id = 0;
    std::shared_ptr<Answer> m_answer;
    std::unique_ptr<OpenRecording> m_open;  // null until the format is told, and for good if there is nothing to play
    frame_proc_t m_proc;
    FramePump m_pump;
    std::atomic<uint64_t> m_now_sec{0};  // the playing position

    std::mutex m_mutex;
    Orders m_orders;

    // Touched by the pump's thread only.
    std::unique_ptr<FrameCursor> m_cursor;
    float m_speed = 1.0F;
    bool m_ended = false;     // the end was told
    FrameEntry m_next;        // the frame in front of the cursor that goes out next
    bool m_has_next = false;  // m_next is set
    size_t m_key = 0;         // when key frames only go out, the next one to be read
    // The frame at m_anchor_ms of the recording is due at m_anchor_time; time stamps count from m_begin.
    Clock::time_point m_begin;
    bool m_begun = false;
    Clock::time_point m_anchor_time;
    bool m_has_anchor = false;
    double m_anchor_ms = 0.0;
    double m_last_pts_ms = 0.0;
    uint32_t m_sequence[2] = {0, 0};  // of video and audio
    int m_packet_state = Kavio::Vidora::PACKET_STATE_RUNS;
    std::vector<unsigned char> m_body;        // of the frame in work
    std::vector<unsigned char> m_short_body;  // the same as the file has it, where it has three-byte start codes
};

#endif  // VIDORA_HOST_RECORDINGSOURCE_H
