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
//     const CMemoryTrail::CTurn turn(m_trail);     // in the strand's callback
//     CMemoryTrail::Note(*this);                   // in each object that the turn passes
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
        explicit CTurn(CMemoryTrail& trail);
        ~CTurn();
        CTurn(const CTurn&) = delete;
        CTurn& operator=(const CTurn&) = delete;

    private:
        CMemoryTrail* const m_outer;
    };

    // The turn that runs, if there is one, uses these bytes.
    static void Note(const void* place, size_t size);
    template <typename T>
    static void Note(const T& object) {
        Note(&object, sizeof(object));
    }

private:
    void fetch() const;
    void begin_turn();
    void add(uint64_t place);

    uint32_t m_turns = 0;
    uint32_t m_count = 0;
    uint64_t m_places[MAX_PLACES];  // the number of a cache line, and how many of them
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_MEMORYTRAIL_H
