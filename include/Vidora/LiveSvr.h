#ifndef VIDORA_LIVESVR_H
#define VIDORA_LIVESVR_H

#include "Vidora/Export.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CDataSource;
class CLiveChannel;

// CLiveSvr: the registry of published channels.
//
// A channel is published under a content string, "name" or "name?a=1&b=2"; the order of the parameters doesn't matter.
// One source may feed several channels. Results are 0, or -1 with a log line.
//
// THREADING  Any thread, also inside a source's Start or Stop and inside a frame callback. One lock over the table,
//            held over no call into a source: a source that takes its time to start or to stop holds up its own
//            channels' clients and nobody else. See CLiveChannel.
// OWNERSHIP  From a successful AddLiveChannel on the registry owns channel and source and closes them: the channel at
//            DelLiveChannel, the source with its last channel unless AddDataSrc has given it back, and all of them at
//            Close. Sinks are borrowed: who enters leaves before the sink dies. Who holds a reference on the channel
//            leaves by CLiveChannel::Leave, which also serves when the channel was deleted meanwhile.
// THE END    A registry dies by Close, never by delete. The host may close it at any time, before or after the servers
//            that were given it by SetLiveSvr, also while clients play, and doesn't touch it any more. Servers and
//            sessions that still use it keep it allocated until the last of them has gone; they find it empty, and
//            sessions of its channels are told that these have ended.
class VIDORA_API CLiveSvr : public CNetHandler {
public:
    // `notify_id`: the handler that gets the messages of channels and sources, with a pointer to the channel's name as
    // parameter where a channel sent it; 0 for none.
    static CLiveSvr* Create(long notify_id);

    // Publishes `channel` as `channel_name`. A name that is in use already is not refused: the first one is found. A
    // channel that is in a table already, of this registry or another, is refused, -1, and so is one that was
    // closed; channel and source stay the caller's then.
    int AddLiveChannel(const char* channel_name, CLiveChannel* channel, CDataSource* src);
    // Takes the first channel of exactly that name and parameters away; its sessions end.
    int DelLiveChannel(const char* channel_name);
    // 0 if a channel fits the content string, -1 if none does.
    int QueryLiveChannel(const char* content);
    // The channel that fits, with a reference for the handler `user`, who owes it a DelRef; or null.
    CLiveChannel* GetLiveChannel(const char* content, long user);
    // Attaches a sink to the channel's buffer of that packet type and starts streaming; and detaches it from the
    // channel that it has entered, also if another one fits the content better by now. A null sink counts as a user
    // without a sink. If the source is busy with another call the start or stop follows it.
    int EnterLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type);
    int EnterLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type);
    int LeaveLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type);
    int LeaveLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type);
    // EnterLiveChannel for a caller that holds a reference on `only`. If another channel has its name by now the result
    // is -1, and nothing is attached. Null: any channel.
    int EnterLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type,
                         const CLiveChannel* only);
    int EnterLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type,
                         const CLiveChannel* only);
    // Asks the channel's source for its stream information anew.
    int UpdataLiveChannel(const char* content, long arg);

    // Deletes all channels, as DelLiveChannel does, closes the sources, and ends the registry. Once.
    void Close() override;
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;

private:
    friend class CLiveSvrRef;  // counts the users that outlast Close
    class VIDORA_LOCAL CFound;
    struct VIDORA_LOCAL Internal;
    CLiveSvr();
    ~CLiveSvr() override;

    void keep();
    void release();

    Internal* m_internal;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_LIVESVR_H
