#ifndef VIDORA_STREAMCLIENTWRAPPER_H
#define VIDORA_STREAMCLIENTWRAPPER_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Vidora {

// The flat client layer: functions on a handle that play one stream through NATs (see CP2PClientSession) and deliver
// whole frames to a callback.
//
//     stream_client_startup();
//     stream_client* client = stream_client_create(&params, nullptr);
//     stream_client_start(client, &callbacks);   // plays by itself; frames come
//     stream_client_destroy(client);
//     stream_client_cleanup();
//
// All return 0, or -1 with a log line: a null argument, or what each says.
//
// THREADING  stream_client_destroy ends the handle: nothing else may use it then or at the same time. The others: any
//            thread, also inside the callbacks, stream_client_startup and stream_client_cleanup excepted. Callbacks
//            come on threads of the pool, with no lock held: frames and damage one at a time, the end of the stream
//            perhaps beside a frame. A slow one holds up its own stream only.
// OWNERSHIP  The records are copied. `user` and `arg` are passed through.
struct stream_client;

// URLs of at most 1024 characters, and a NUL.
enum { STREAM_CLIENT_URL_SIZE = 1025 };

// The parameters of a client; the host's own record may begin with this one.
struct stream_client_params {
    char url[STREAM_CLIENT_URL_SIZE];  // "rtsp://[user:password@]address:port/path", see CP2PClientSession::Start
    int sock_handle;                   // a bound UDP socket, through which the server can be reached
};

// What a client calls; the host's own record may begin with this one. Each function may be null.
struct stream_client_callbacks {
    // One whole private frame of `size` bytes (see KXFrame.h), valid during the call.
    void (*on_frame)(const unsigned char* data, unsigned int size, void* user);
    // `code` 0: media was damaged and dropped. 1: the stream is over, or didn't begin; once, unless it was stopped.
    void (*on_error)(int code, void* user);
    void* user;
};

// See CP2PClientSession::Play.
struct play_params {
    float begin;
    float end;
    unsigned char scale;  // 0 or 1
    float speed;
};

// Makes the thread pool, of four threads, unless this function has made it before. -1: no thread could be started, or
// the caller is one of the pool's.
VIDORA_API int stream_client_startup();
// Ends the thread pool, however often it was started up; best when no client runs any more. -1: it isn't started up, or
// the caller is one of the pool's threads.
VIDORA_API int stream_client_cleanup();

// A client, which nothing happens on yet; null for null, a URL that doesn't end, or without memory. `parameters`: a
// stream_client_params.
VIDORA_API stream_client* stream_client_create(const void* parameters, void* arg);
// The `arg` of the creation; null for a null handle.
VIDORA_API void* stream_client_get_arg(const stream_client* handle);
// Begins to play. `callbacks`: a stream_client_callbacks. 0: the socket is the library's, which closes it when the
// stream has ended, so that a client is started once. -1: it runs or ran already, or the URL or socket can't be used;
// the socket stays the caller's.
VIDORA_API int stream_client_start(stream_client* handle, const void* callbacks);
// Plays on, or from another place of a recording. -1: it isn't set up yet, or has ended.
VIDORA_API int stream_client_play(stream_client* handle, const play_params* params);
// Holds the stream until the next play. -1: it isn't started.
VIDORA_API int stream_client_pause(stream_client* handle);
// Ends the stream. When it returns no callback runs or will begin, also if another thread or a callback has stopped it
// before, but for one that it is called from (and the other one, if both callbacks stop). 0 also for a client that
// doesn't run.
VIDORA_API int stream_client_stop(stream_client* handle);
// The same, and frees the handle.
VIDORA_API int stream_client_destroy(stream_client* handle);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMCLIENTWRAPPER_H
