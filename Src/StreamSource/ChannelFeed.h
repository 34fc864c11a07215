#ifndef VIDORA_STREAMSOURCE_CHANNELFEED_H
#define VIDORA_STREAMSOURCE_CHANNELFEED_H

#include <memory>
#include <string>

#include "StreamSource/SourceGate.h"
#include "Vidora/Names.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CSdpParser;

// What a channel's packets go into, by packet_type_t. Shared, since a call into the source may outlast the channel.
struct ChannelBuffers {
    CMediaBuffer buffer[PACKET_TYPE_NONE];
};

// Posted to the channel when a description is made, or has failed, that it wanted to hear of.
const unsigned int MSG_CHANNEL_DESCRIBED = 0x1f10;

// CChannelFeed: what one channel wants of its source, and how far the source has got with it.
//
// The channel says what it wants and calls Settle, which has the source do it: at once, or when the call has ended that
// the source is busy with. Wishes that change meanwhile are met as they are then: a client that came and went costs
// the source nothing.
//
// THREADING  Any thread; a lock of its own, a leaf, held over no call into the source. Run: the source's gate.
// OWNERSHIP  Held by the channel, and by the gate while it waits there.
class CChannelFeed : public CSourceJob, public std::enable_shared_from_this<CChannelFeed> {
public:
    // `former`: the description of the source that it replaces, or an empty text. Null if memory is short.
    static std::shared_ptr<CChannelFeed> Create(const std::shared_ptr<CSourceGate>& gate,
                                                const std::shared_ptr<ChannelBuffers>& buffers, long channel_id,
                                                const std::string& former);
    CChannelFeed(const std::shared_ptr<CSourceGate>& gate, const std::shared_ptr<ChannelBuffers>& buffers,
                 long channel_id, const std::string& former);
    ~CChannelFeed() override;

    const std::shared_ptr<CSourceGate>& Gate() const { return m_gate; }

    // The channel has that many clients of a form now. `joined`: one of them is new, and needs a key frame soon.
    void SetClients(packet_type_t packet_type, int clients, bool joined);
    // No clients any more: `source`, which is the gate's, puts nothing into the channel's buffers from the return on,
    // also while it is too busy to be stopped.
    void Quit(CDataSource& source);
    // Begins to play and describes itself.
    void WantBegin();
    // Describes itself anew. `told`: the channel gets MSG_CHANNEL_DESCRIBED. For the first description behind another
    // source's it gets that if the two differ, and only then.
    void WantDescription(bool told);
    // Reads its stream information anew; there is no description until it has, or has failed to.
    void WantUpdate(long arg);
    // True if it has happened when the call returns; the results then say how.
    bool Settle() { return m_gate->Do(shared_from_this()); }

    // Of the last start and stop of a form, and of the last update.
    int StartResult(packet_type_t packet_type);
    int StopResult(packet_type_t packet_type);
    int UpdateResult();

    // The source's description; null if there is none.
    std::shared_ptr<const CSdpParser> GetSdp();
    int GetMediaCount();
    // The description as a text, but for the line that has the time of its making; empty if there is none.
    std::string GetText();

    void Run(CDataSource& source) override;

private:
    // The state of one packet form.
    struct Form {
        int clients = 0;      // wanted,
        int started = 0;      // and counted in by the source
        bool joined = false;  // a client is new since the last start
        bool failed = false;  // since the last client joined
        int start_result = 0;
        int stop_result = 0;
    };

    enum step_kind_t { STEP_NONE, STEP_PLAY, STEP_DESCRIBE, STEP_UPDATE, STEP_START, STEP_STOP };

    struct Step {
        step_kind_t kind = STEP_NONE;
        packet_type_t packet_type = PACKET_TYPE_NONE;
        long arg = 0;
    };

    Step next_step_locked() VIDORA_REQUIRES(m_mutex);
    Step take_step();
    void do_step(CDataSource& source, const Step& step);
    void describe(CDataSource& source);
    void start(CDataSource& source, packet_type_t packet_type);
    void stop(CDataSource& source, packet_type_t packet_type);
    void update(CDataSource& source, long arg);

    const std::shared_ptr<CSourceGate> m_gate;
    const std::shared_ptr<ChannelBuffers> m_buffers;
    const long m_channel_id;

    CMutex m_mutex;
    Form m_forms[PACKET_TYPE_NONE] VIDORA_GUARDED_BY(m_mutex);
    bool m_play_due VIDORA_GUARDED_BY(m_mutex) = false;
    bool m_describe_due VIDORA_GUARDED_BY(m_mutex) = false;
    bool m_told VIDORA_GUARDED_BY(m_mutex) = false;  // when it is described
    bool m_update_due VIDORA_GUARDED_BY(m_mutex) = false;
    long m_update_arg VIDORA_GUARDED_BY(m_mutex) = 0;
    int m_update_result VIDORA_GUARDED_BY(m_mutex) = 0;
    std::shared_ptr<const CSdpParser> m_sdp VIDORA_GUARDED_BY(m_mutex);
    std::string m_former VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_CHANNELFEED_H
