#include "StreamParser/TsTable.h"

#include "Vidora/KXFrame.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

struct KindRow {
    int kind;
    uint8_t written;  // stream_type in the tables that we write
    int read;         // stream_type that we read as this kind, -1 for none
    int kx_code;      // of the private frame header, -1 for none
};

const KindRow KIND_ROWS[] = {
    {STREAM_KIND_MPEG4, 0x10, 0x10, KX_VIDEO_MPEG4},
    {STREAM_KIND_H264, 0x1B, 0x1B, KX_VIDEO_H264},
    {STREAM_KIND_MPEG2, 0, 0x02, KX_VIDEO_MPEG2},
    {STREAM_KIND_MPEG_AUDIO, 0, -1, -1},
    {STREAM_KIND_AUDIO, 0, -1, -1},
    {STREAM_KIND_MP3, 0x03, 0x03, -1},
};

const KindRow* find_kind(int kind) {
    for (const KindRow& row : KIND_ROWS) {
        if (row.kind == kind) {
            return &row;
        }
    }
    return nullptr;
}

}  // namespace

uint8_t stream_type_of_kind(int kind) {
    const KindRow* row = find_kind(kind);
    return row != nullptr ? row->written : 0;
}

int kx_code_of_kind(int kind) {
    const KindRow* row = find_kind(kind);
    return row != nullptr ? row->kx_code : -1;
}

int stream_kind_of_type(uint8_t stream_type) {
    for (const KindRow& row : KIND_ROWS) {
        if (row.read == stream_type) {
            return row.kind;
        }
    }
    return STREAM_KIND_AUDIO;
}

int stream_kind_of_enc_type(int enc_type) {
    switch (enc_type) {
        case ENC_TYPE_H264:
            return STREAM_KIND_H264;
        case ENC_TYPE_MPEG4:
            return STREAM_KIND_MPEG4;
        case ENC_TYPE_MPEG_AUDIO:
            return STREAM_KIND_MPEG_AUDIO;
        case ENC_TYPE_MP3:
            return STREAM_KIND_MP3;
        default:
            return STREAM_KIND_AUDIO;
    }
}

}  // namespace Vidora
}  // namespace Kavio
