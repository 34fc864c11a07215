#ifndef VIDORA_PULL_PULLSESSION_H
#define VIDORA_PULL_PULLSESSION_H

#include <memory>
#include <string>

#include "Options.h"
#include "Vidora/RtspClientSession.h"
#include "Vidora/Tramel/MediaBuffer.h"

// PullSession: a session of the library, whatever the way to its server. Its end is that of the session.
//
// THREADING  As the sessions of the library.
class PullSession {
public:
    virtual ~PullSession() = default;

    virtual Kavio::Vidora::CMediaBuffer* GetMediaBuffer() = 0;
    virtual Kavio::Vidora::CSdpInfo* GetSdpInfo() = 0;
    virtual void Play(float begin, float end, float speed) = 0;
    // Back channel data.
    virtual void Put(unsigned char* data, int length) = 0;
    virtual void GetStatistics(Kavio::Vidora::RtspClientStatistics& statistics) = 0;
    virtual Kavio::Vidora::rtsp_client_failure_t GetFailure() = 0;
};

// Starts what the options ask for; `handler_id` gets the notifications. Through NATs it first meets the device, which
// may take ten seconds. Null, with `error`, if it can't begin.
std::unique_ptr<PullSession> StartSession(const Options& options, long handler_id, std::string& error);

#endif  // VIDORA_PULL_PULLSESSION_H
