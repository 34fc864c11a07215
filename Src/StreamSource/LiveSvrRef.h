#ifndef VIDORA_STREAMSOURCE_LIVESVRREF_H
#define VIDORA_STREAMSOURCE_LIVESVRREF_H

namespace Kavio {
namespace Vidora {

class CLiveSvr;

// CLiveSvrRef: a counted handle on a registry, for whoever uses one that a host may close meanwhile: sessions, and what
// makes them. A registry that was closed stays allocated until the last handle has gone; it is empty by then, so that
// look-ups find nothing.
//
// THREADING  A value: one object is used by one thread at a time. Copies of it may be used and dropped anywhere, also
//            with locks held.
class CLiveSvrRef {
public:
    // Names no registry.
    CLiveSvrRef() = default;
    // `live_svr`: a registry that lives, or null.
    explicit CLiveSvrRef(CLiveSvr* live_svr);
    CLiveSvrRef(const CLiveSvrRef& other) : CLiveSvrRef(other.m_live_svr) {}
    CLiveSvrRef& operator=(const CLiveSvrRef& other);
    ~CLiveSvrRef();

    CLiveSvr* operator->() const { return m_live_svr; }
    CLiveSvr* get() const { return m_live_svr; }
    explicit operator bool() const { return m_live_svr != nullptr; }

private:
    CLiveSvr* m_live_svr = nullptr;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_LIVESVRREF_H
