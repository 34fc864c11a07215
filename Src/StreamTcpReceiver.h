#ifndef VIDORA_STREAMTCPRECEIVER_H
#define VIDORA_STREAMTCPRECEIVER_H

#include <memory>

#include "StreamReceiver.h"

namespace Kavio {
namespace Vidora {

class CStreamSeparator;
struct separator_record_t;

// What travels on the connection besides RTSP replies.
enum receiver_protocol_t {
    RECEIVER_PROTOCOL_RTP = 1,  // interleaved RTP (RFC 2326 10.12)
    RECEIVER_PROTOCOL_KX = 4    // private frames behind 6-byte headers
};

// CStreamTcpReceiver: reads an RTSP connection on which media is interleaved, see CStreamReceiver.
//
// A turn ends after some ten messages, or after eight reads that brought none, so that a busy connection doesn't hold
// its thread; what is left comes in a turn of its own, with or without further bytes from the network.
class CStreamTcpReceiver final : public CStreamReceiver {
public:
    // Shares the connected `sock`. `owner_id`: messages 1 and 2 go there, as by SetNotifyId and WaitException; 0 for
    // nobody. `protocol`: 4 for private frames, any other value for RTP. Null if memory is short or `sock` is null.
    static CStreamTcpReceiver* Create(const std::shared_ptr<CSockStream>& sock, long owner_id, int protocol);

    // Bytes of the connection that its former reader took from the socket and didn't use: handled before all that is
    // read. Before Start; in several pieces or one. 0, or -1 if they are above 32 KiB in all, or memory is short.
    int Feed(const char* data, int length);

    int Start(uint64_t period_us, float speed) override;
    int Stop() override;

    int handle_stream_input() override;
    int handle_message(long sender_id, unsigned int msg, long param) override;

protected:
    void release_socks() override;
    void put_rest(int track) override;
    bool is_end(int track, const rtcp_digest_t& digest) override;

private:
    CStreamTcpReceiver(const std::shared_ptr<CSockStream>& sock, std::unique_ptr<CStreamSeparator> separator);
    ~CStreamTcpReceiver() override;

    static constexpr int MAX_FED = 32768;

    void set_channels();
    bool is_turn_over(int handled) const;
    int read(int& count);
    int read_fed(char* place, int space);
    int take_records(int& handled);
    int take_record(const separator_record_t& record);
    int take_rtp(const separator_record_t& record);
    void ask_for_turn();

    std::shared_ptr<CSockStream> m_sock;
    std::unique_ptr<CStreamSeparator> m_separator;
    std::unique_ptr<char[]> m_fed;  // made by the first Feed, gone when it is used up
    int m_fed_length = 0;
    int m_kx_channel = 0;    // of the last private header
    bool m_emptied = false;  // the socket, in this turn
    int m_reads = 0;         // of this turn
    std::atomic<bool> m_turn_due{false};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMTCPRECEIVER_H
