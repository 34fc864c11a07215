#ifndef VIDORA_HOST_CREDENTIALS_H
#define VIDORA_HOST_CREDENTIALS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Options.h"
#include "Vidora/AuthModule.h"

// The request that an answer comes with.
struct AuthRequest {
    std::string method;
    std::string url;
};

// Credentials: the users of this host and the judgement of their answers. Immutable after Set, so that any number of
// modules may use it at once.
class Credentials {
public:
    // `nonce_sec`: how long a nonce is good for.
    void Set(const std::vector<UserOption>& users, const std::string& realm, int nonce_sec);

    // A challenge with a fresh nonce: Digest (RFC 2617 3.2.1), and Basic as a second header line.
    std::string MakeChallenge() const;
    // Judges the value of an Authorization header. A Digest answer counts for the request that it was made for only.
    bool IsAllowed(const std::string& authorization, const AuthRequest& request) const;

private:
    typedef std::map<std::string, std::string> fields_t;

    std::string make_nonce(uint64_t time_sec) const;
    bool is_nonce_fresh(const std::string& nonce) const;
    bool is_digest_allowed(const fields_t& fields, const AuthRequest& request) const;
    bool is_basic_allowed(const std::string& token) const;
    const std::string* find_password(const std::string& name) const;

    std::map<std::string, std::string> m_users;
    std::string m_realm;
    std::string m_secret;  // of this process; nonces are signed with it
    int m_nonce_sec = 300;
};

// AuthModule: the authentication of one session. It answers inside the call.
class AuthModule : public Kavio::Vidora::IAuthModule {
public:
    explicit AuthModule(const Credentials& credentials) : m_credentials(credentials) {}

    void Release() override { delete this; }
    int GetChallenge(const char* method_or_url, result_proc_t result, const char* info, int kind) override;
    int ProcessChallenge(const char* response, result_proc_t result, int kind) override;
    void SetRequest(const char* method, const char* url) override;

private:
    ~AuthModule() override = default;

    const Credentials& m_credentials;
    AuthRequest m_request;
};

#endif  // VIDORA_HOST_CREDENTIALS_H
