#ifndef VIDORA_OSTRA_MEMORYTRAIL_H
#define VIDORA_OSTRA_MEMORYTRAIL_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Ostra {

// CMemoryTrail: where the objects lie that a strand goes through in each of its turns. With many sessions their memory
// has left the processor's near caches when the next frame comes, and each first look at an object would wait for it.
// A turn therefore begins by asking for all of it at once, and has it by the time that its system call returns.
//
//     const CMemoryTrail::CTurn turn(m_trail, *this, *m_sock);   // in the strand's callback
//     CMemoryTrail::Note(*this);                                 // in an object that the turn comes to
//
// Places are noted in a few of many turns. They are only hints: one whose object has gone is as good as any other
// address, as nothing is read or written there.
//
// THREADING  A trail: one thread at a time. Note: any thread; it is for the innermost turn of the calling one.
// MEMORY     MAX_PLACES places; what comes behind them isn't noted.
class CMemoryTrail {
public:
    static constexpr size_t MAX_PLACES = 24;

    class CTurn {
    public:
        // Uses these objects, besides those that are noted.
        template <typename... Objects>
        explicit CTurn(CMemoryTrail& trail, const Objects&... objects) : CTurn(trail) {
            Note(objects...);
        }
        explicit CTurn(CMemoryTrail& trail);
        ~CTurn();
        CTurn(const CTurn&) = delete;
        CTurn& operator=(const CTurn&) = delete;

    private:
        CMemoryTrail* const m_outer;
    };

    // The turn that runs, if there is one, uses these objects, or these bytes.
    template <typename... Objects>
    static void Note(const Objects&... objects) {
        (NoteBytes(&objects, sizeof(objects)), ...);
    }
    static void NoteBytes(const void* place, size_t size);

    // Asks for these bytes now, and waits for nothing.
    static void Fetch(const void* place, size_t size);

private:
    void begin_turn();
    void add(uint64_t place);

    uint32_t m_turns = 0;
    uint32_t m_count = 0;
    uint64_t m_places[MAX_PLACES];  // the number of a cache line, and how many of them
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_MEMORYTRAIL_H
