#ifndef VIDORA_STREAMSOURCE_CHANNELNAME_H
#define VIDORA_STREAMSOURCE_CHANNELNAME_H

#include <atomic>

namespace Kavio {
namespace Vidora {

// CChannelName: the name of a channel, as its messages carry it: a pointer that may be read when the channel has gone.
// Names of channels that have gone are kept until as many others have gone after them as KEPT says, and freed then.
//
// THREADING  Set: one thread at a time. Get: any thread.
// MEMORY     KEPT names of at most MAX_LENGTH bytes beside those of living channels.
class CChannelName {
public:
    static const int KEPT = 1024;
    static const int MAX_LENGTH = 255;

    CChannelName() = default;
    ~CChannelName();
    CChannelName(const CChannelName&) = delete;
    CChannelName& operator=(const CChannelName&) = delete;

    // Takes at most MAX_LENGTH characters. False, with the name as it was, if memory is short.
    bool Set(const char* name);
    const char* Get() const {
        const char* text = m_text.load();
        return text == nullptr ? "" : text;
    }

private:
    std::atomic<char*> m_text{nullptr};  // owned
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_CHANNELNAME_H
