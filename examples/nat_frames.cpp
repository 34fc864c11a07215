// The viewer of nat_pair.cpp in plain functions, which give whole frames; see there for the other two programs.
//     example_nat_frames POINT NAME CONTENT COUNT     ends after COUNT frames, with exit code 0
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "Vidora/Vidora.h"
#include "rendezvous/Rendezvous.h"
using namespace Kavio::Vidora;

// What the callbacks report to the main thread.
struct Progress {
    std::mutex mutex;
    std::condition_variable changed;
    int left = 0;
    bool over = false;
};

template <typename Change>
void change(void* user, Change change) {
    Progress& progress = *static_cast<Progress*>(user);
    const std::lock_guard<std::mutex> guard(progress.mutex);
    change(progress);
    progress.changed.notify_one();
}

void on_frame(const unsigned char*, unsigned int size, void* user) {
    change(user, [size](Progress& progress) {
        if (progress.left-- > 0) {
            std::cout << size << " bytes" << std::endl;
        }
    });
}

void on_error(int code, void* user) {
    change(user, [code](Progress& progress) { progress.over = progress.over || code == 1; });
}

int watch(const PunchedSocket& met, const char* content, int count) {
    stream_client_params params = {};
    snprintf(params.url, sizeof(params.url), "rtsp://%s/%s", met.peer.c_str(), content);
    params.sock_handle = met.fd;
    Progress progress;
    progress.left = count;
    const stream_client_callbacks callbacks = {&on_frame, &on_error, &progress};
    stream_client* client = stream_client_create(&params, nullptr);
    if (stream_client_start(client, &callbacks) < 0) {
        close(met.fd);  // it is still ours
        stream_client_destroy(client);
        return 1;
    }
    std::unique_lock<std::mutex> lock(progress.mutex);
    progress.changed.wait(lock, [&progress] { return progress.left <= 0 || progress.over; });
    lock.unlock();
    stream_client_destroy(client);  // no callback comes after it
    return progress.left > 0 ? 1 : 0;
}

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: example_nat_frames POINT NAME CONTENT COUNT" << std::endl;
        return 2;
    }
    RendezvousOptions options;
    options.point = argv[1];
    options.name = argv[2];
    PunchedSocket met;
    stream_client_startup();
    const int result = MeetPeer(options, met) == 0 ? watch(met, argv[3], std::atoi(argv[4])) : 1;
    stream_client_cleanup();
    return result;
}
