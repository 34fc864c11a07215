#ifndef VIDORA_TESTS_SUPPORT_FAKEDATASOURCE_H
#define VIDORA_TESTS_SUPPORT_FAKEDATASOURCE_H

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "Protocol/SdpParser.h"
#include "Vidora/DataSource.h"
#include "support/TestHandler.h"

namespace Kavio::Support {

// A door that callers wait at while it is shut.
class CDoor {
public:
    void Pass() {
        ++m_waiting;
        WaitUntil([this] { return m_open.load(); });
        --m_waiting;
    }
    void Set(bool open) { m_open = open; }
    int Waiting() const { return m_waiting; }

private:
    std::atomic<bool> m_open{true};
    std::atomic<int> m_waiting{0};
};

// CFakeDataSource: a data source that gives nothing: it describes itself, counts what is asked of it and keeps those
// who want to be notified. Starts, stops and descriptions wait at its door.
class CFakeDataSource : public Vidora::CDataSource {
public:
    // `closed` (may be null) counts the sources that have gone.
    explicit CFakeDataSource(std::atomic<int>* closed = nullptr) : m_closed(closed) {}

    CDoor door;
    std::atomic<bool> start_fails{false};
    std::atomic<int> plays{0}, starts{0}, stops{0};
    std::atomic<int> running[3] = {{0}, {0}, {0}};  // by packet type
    std::atomic<int> most_inside{0};                // calls at the door at once
    std::string sdp =
        "v=0\r\na=packetization-supported:KX\r\nm=video 0 RTP/AVP 96\r\na=control:trackID=0\r\n"
        "a=rtpmap:96 H264/90000\r\nm=audio 0 RTP/AVP 8\r\na=control:trackID=1\r\n";

    int Running() const { return running[0] + running[1] + running[2]; }
    size_t Notified() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_notified.size();
    }

    int Init(long, int) override { return 0; }
    void AddNotify(long id) override {
        DelNotify(id);
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_notified.push_back(id);
    }
    void DelNotify(long id) override {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_notified.erase(std::remove(m_notified.begin(), m_notified.end(), id), m_notified.end());
    }
    int Play(const Vidora::UtcTime&, const Vidora::UtcTime&, float, bool) override { return 0; }
    int Play(uint64_t, uint64_t, float, bool) override { return ++plays, 0; }
    int Pause() override { return -1; }
    int StartStreaming(Vidora::packet_type_t type, Vidora::CMediaBuffer*, int) override {
        const CInside inside(*this);
        ++starts;
        running[type] += start_fails ? 0 : 1;
        return start_fails ? -1 : 0;
    }
    int StopStreaming(Vidora::packet_type_t type) override {
        const CInside inside(*this);
        ++stops;
        --running[type];
        return Running() > 0 ? -1 : 0;
    }
    int GetSdp(Vidora::CSdpParser& parser) override {
        const CInside inside(*this);
        return parser.Parse(sdp.c_str(), 0);
    }
    int GetSdp(Vidora::CSdpParser& parser, int) override { return GetSdp(parser); }
    int GetSrcInfo(Vidora::SrcInfo&, int) override { return 0; }
    int GetPlayRange(Vidora::UtcTime&, Vidora::UtcTime&) override { return -1; }
    int GetPlayRange(uint64_t&, uint64_t&) override { return -1; }
    int GetTcpChannel(int) override { return 2; }
    unsigned int GetSSRC(int) override { return 77; }
    int handle_close(Vidora::CNetHandler*) override {
        EXPECT_EQ(0, m_inside);
        std::atomic<int>* closed = m_closed;
        delete this;
        return closed == nullptr ? 0 : ++*closed;
    }

private:
    struct CInside {
        explicit CInside(CFakeDataSource& owner) : source(owner) {
            source.most_inside = std::max(source.most_inside.load(), ++source.m_inside);
            source.door.Pass();
        }
        ~CInside() { --source.m_inside; }
        CFakeDataSource& source;
    };

    std::atomic<int>* m_closed;
    std::atomic<int> m_inside{0};
    std::mutex m_mutex;
    std::vector<long> m_notified;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_FAKEDATASOURCE_H
