#ifndef VIDORA_RTSPCLIENT_CLIENTREQUESTS_H
#define VIDORA_RTSPCLIENT_CLIENTREQUESTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "RtspClient/ClientTypes.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// Why a request was sent, which decides what its refusal means.
enum request_kind_t {
    REQUEST_MAIN = 0,        // of the conversation itself: a refusal ends it
    REQUEST_KEEPALIVE = 1,   // a refusal is nobody's business but the keep-alive's
    REQUEST_APPLICATION = 2  // SendExtMsg: a refusal is that request's failure
};

struct pending_request {
    int cseq = 0;
    rtsp_method_t method = RTSP_METHOD_UNKNOWN;
    request_kind_t kind = REQUEST_MAIN;
    uint64_t sent_ms = 0;
    std::string body;  // of REQUEST_APPLICATION

    // A PLAY or PAUSE of the conversation.
    bool IsOfPlay() const {
        return kind == REQUEST_MAIN && (method == RTSP_METHOD_PLAY || method == RTSP_METHOD_PAUSE);
    }
};

// CClientRequests: the requests that wait for their reply, oldest first. Each is there, whatever the keep-alive.
//
// THREADING  The strand.
// MEMORY     CLIENT_MAX_REQUESTS. CReplySlots keeps the application from taking them all.
class CClientRequests {
public:
    bool IsFull() const { return m_requests.size() >= CLIENT_MAX_REQUESTS; }
    // False if memory is short or it is full.
    bool Add(const pending_request& request);
    // Takes the request out that a reply answers. False for a CSeq that isn't waited for.
    bool Take(int cseq, pending_request& request);
    // Takes the oldest out if it was sent `age_ms` ago or earlier.
    bool TakeOlder(uint64_t now_ms, unsigned int age_ms, pending_request& request);
    bool Waits(rtsp_method_t method) const;
    // The method of the last PLAY or PAUSE of the conversation that waits; unknown if there is none. / How many wait.
    rtsp_method_t LastOfPlay() const;
    unsigned int CountOfPlay() const;

private:
    std::vector<pending_request> m_requests;
};

// CReplySlots: where the bodies of replies to SendExtMsg go: memory of the application, written once at most.
//
// THREADING  Reserve, Close: any thread. The others: the strand. Close waits for a copy that is being written.
class CReplySlots {
public:
    // Room for a request that is on its way to the strand. Its number, above 0; 0 if there are CLIENT_MAX_PENDING
    // already, or Close was called.
    int Reserve(char* out, int length);
    // The request has got its CSeq. / It will get no reply.
    void Bind(int slot, int cseq);
    void Drop(int slot);
    void DropCSeq(int cseq);
    // It was sent anew under another CSeq.
    void Move(int cseq, int to);
    // Copies the body as far as it fits, with a NUL, and forgets the slot.
    void Write(int cseq, const char* body, int length);
    // Nothing is written any more when it has returned.
    void Close();

private:
    struct slot_t {
        bool used = false;
        int cseq = 0;
        char* out = nullptr;
        int length = 0;
    };

    CMutex m_mutex;
    std::vector<slot_t> m_slots VIDORA_GUARDED_BY(m_mutex);  // CLIENT_MAX_PENDING at most, as many as were ever used
    bool m_closed VIDORA_GUARDED_BY(m_mutex) = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTREQUESTS_H
