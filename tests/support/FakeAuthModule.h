#ifndef VIDORA_TESTS_SUPPORT_FAKEAUTHMODULE_H
#define VIDORA_TESTS_SUPPORT_FAKEAUTHMODULE_H

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Vidora/AuthModule.h"
#include "support/GuardedList.h"

namespace Kavio::Support {

// CFakeAuthModule: asks each client for credentials, of which only "Basic good" are right, and records the calls.
//
// THREADING  Calls of the library: any thread; the record is guarded. What All() gives is set before clients come.
class CFakeAuthModule : public Vidora::IAuthModule {
public:
    enum answer_t { AT_ONCE, LATER, INSIDE_RELEASE };

    // What all modules have in common.
    struct Common {
        std::atomic<answer_t> answer{AT_ONCE};
        std::atomic<int> delay_ms{0};  // of what is answered later
        std::atomic<auth_result_t> first{AUTH_RESULT_CHALLENGE};
        // Called at the beginning of each call: its name as in Count, and its text.
        std::function<void(const std::string& call, const std::string& text)> on_call;

        // Calls of a name: "factory", "request", "challenge", "response" and "release".
        int Count(const std::string& name) {
            return m_calls.CountIf([&](const std::string& call) { return call.compare(0, name.size(), name) == 0; });
        }
        // The calls so far, which are forgotten; behind a name its text: method and URL, the URL and the client's
        // address, or the credentials.
        std::vector<std::string> TakeCalls() { return m_calls.Take(); }
        // Forgets the calls, and answers at once with a challenge from now on.
        void Reset() {
            answer = AT_ONCE;
            first = AUTH_RESULT_CHALLENGE;
            on_call = nullptr;
            m_calls.Take();
        }
        void Record(const std::string& call, const std::string& text = std::string()) {
            if (on_call) {
                on_call(call, text);
            }
            m_calls.Add(text.empty() ? call : call + " " + text);
        }

    private:
        CGuardedList<std::string> m_calls;
    };
    static Common& All() {
        static Common common;
        return common;
    }

    // A factory for CRtspSvrConfig; there is no module for kind 4.
    static Vidora::IAuthModule* Make(Vidora::rtsp_auth_t kind) {
        All().Record("factory");
        return kind == 4 ? nullptr : new CFakeAuthModule;
    }
    void Release() override {
        All().Record("release");
        if (!m_held.empty()) {
            m_held(AUTH_RESULT_OK, nullptr);
        }
        delete this;
    }
    void SetRequest(const char* method, const char* url) override {
        All().Record("request", std::string(method) + " " + url);
    }
    int GetChallenge(const char* url, result_proc_t result, const char* info, int kind) override {
        EXPECT_EQ(2000, kind);
        All().Record("challenge", std::string(url) + " " + info);
        return give(result, All().first, "Basic realm=\"test\"");
    }
    int ProcessChallenge(const char* response, result_proc_t result, int kind) override {
        EXPECT_EQ(2000, kind);
        All().Record("response", response);
        const bool good = std::string(response).find("Basic good") == 0;
        return give(result, good ? AUTH_RESULT_OK : AUTH_RESULT_DENIED, nullptr);
    }

private:
    ~CFakeAuthModule() override { join(); }
    void join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    int give(const result_proc_t& result, auth_result_t value, const char* text) {
        join();
        if (All().answer == AT_ONCE) {
            result(value, text);
        } else if (All().answer == INSIDE_RELEASE) {
            m_held = result;
        } else {
            m_thread = std::thread([=] {
                std::this_thread::sleep_for(std::chrono::milliseconds(All().delay_ms));
                result(value, text);
            });
        }
        return 0;
    }

    std::thread m_thread;
    result_proc_t m_held;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_FAKEAUTHMODULE_H
