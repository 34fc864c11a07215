#include "Protocol/StaticPayload.h"

namespace Kavio {
namespace Vidora {

namespace {

const static_payload_t STATIC_PAYLOADS[] = {
    {0, 8000, "PCMU"},  {1, 8000, "1016"},   {2, 8000, "G721"},  {3, 8000, "GSM"},    {5, 8000, "DVI4"},
    {6, 16000, "DVI4"}, {7, 8000, "LPC"},    {8, 8000, "PCMA"},  {9, 8000, "G722"},   {10, 44100, "L16"},
    {11, 44100, "L16"}, {14, 90000, "MPA"},  {15, 8000, "G728"}, {25, 90000, "CelB"}, {26, 90000, "JPEG"},
    {28, 90000, "nv"},  {31, 90000, "H261"}, {32, 90000, "MPV"}, {33, 90000, "MP2T"},
};

}  // namespace

const static_payload_t* FindStaticPayload(int payload_type) {
    for (const static_payload_t& row : STATIC_PAYLOADS) {
        if (row.payload_type == payload_type) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace Vidora
}  // namespace Kavio
