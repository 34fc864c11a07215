#include "StreamParser/StreamParser.h"

#include <cstdlib>

#include "StreamParser/PrintLevel.h"
#include "StreamParser/StreamDec.h"
#include "StreamParser/StreamEnc.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

std::atomic<int> g_print_level{PRINT_OFF};

namespace {

constexpr char BANNER[] = "Kavio<StreamParser> 1.0.0";

constexpr const char* STREAM_TYPE_NAMES[] = {"RTP", "TS", "PS", "Private", "Raw Frame", "Private Frame", "Frame Auto"};
constexpr const char* ENC_TYPE_NAMES[] = {"H264",  "Mpeg4",       "Jpeg",          "Mpeg2TS", "Mpeg1or2Audio",
                                          "Audio", "AssistFrame", "OnvifMetadata", "Mp3"};

// The name of a value that counts from 1.
template <size_t COUNT>
const char* name_of(const char* const (&names)[COUNT], int value) {
    return value >= 1 && value <= static_cast<int>(COUNT) ? names[value - 1] : "Unknown";
}

void show_version(int, char**) {
    R3Printf("%s | %s %s\n", BANNER, __DATE__, __TIME__);
}

void show_parsers(int, char**) {
    CStreamParser::ShowAll();
}

void set_print_level(int argc, char** argv) {
    g_print_level.store(argc > 1 ? std::atoi(argv[1]) : PRINT_OFF, std::memory_order_relaxed);
}

// Help texts in Chinese, in code page GBK.
constexpr char HELP_VERSION[] = "\xCF\xD4\xCA\xBE\xB0\xE6\xB1\xBE";                       // show the version
constexpr char HELP_SHOW[] = "\xCF\xD4\xCA\xBE\xCB\xF9\xD3\xD0\xD7\xAA\xBB\xBB\xC6\xF7";  // show all converters
// set the print level: 0 off, 1 input stream, 2 output stream
constexpr char HELP_PRINT[] =
    "\xC9\xE8\xD6\xC3\xB4\xF2\xD3\xA1\xBC\xB6\xB1\xF0: 0 \xB9\xD8\xB1\xD5, 1 \xCA\xE4\xC8\xEB\xC2\xEB\xC1\xF7, "
    "2 \xCA\xE4\xB3\xF6\xC2\xEB\xC1\xF7";

// Registers the console commands when the library is loaded.
struct CommandRegistrar {
    CommandRegistrar() {
        R3Register(reinterpret_cast<void*>(&show_version), "spver", HELP_VERSION);
        R3Register(reinterpret_cast<void*>(&show_parsers), "spshow", HELP_SHOW);
        R3Register(reinterpret_cast<void*>(&set_print_level), "spprt", HELP_PRINT);
    }
};

const CommandRegistrar g_registrar;

int unsupported(const char* text) {
    logError("%s", text);
    return PARSER_UNSUPPORTED;
}

}  // namespace

const char* stream_type_name(int stream_type) {
    return name_of(STREAM_TYPE_NAMES, stream_type);
}
const char* enc_type_name(int enc_type) {
    return name_of(ENC_TYPE_NAMES, enc_type);
}

void print_input_frame(int enc_type, uint64_t pts, unsigned int len) {
    if (IsPrinted(PRINT_INPUT)) {
        R3Printf("Input Frame[%s]: ts[%08x] len = %d\n", enc_type_name(enc_type), static_cast<unsigned>(pts),
                 static_cast<int>(len));
    }
}

CStreamParserPtr CStreamParser::Create(int src_type, int dst_type) {
    switch (src_type) {
        case STREAM_TYPE_RTP:
        case STREAM_TYPE_TS:
            return CStreamDec::Create(src_type, dst_type);
        case STREAM_TYPE_FRAME_AUTO:
            return CStreamEnc::Create(src_type, dst_type);
        default:
            logError("CStreamParser::Create dst_type[%d] unsupported!\n", dst_type);
            return CStreamParserPtr();
    }
}

int CStreamParser::InputFrame(const Flumen::CMediaFrame&) {
    return unsupported("InputFrame Unsup!\n");
}

Flumen::CMediaFrame CStreamParser::OutputFrame() {
    logError("OutputFrame Unsup!\n");
    return Flumen::CMediaFrame();
}

void CStreamParser::Clean() {
    logError("Clean Unsup!\n");
}
int CStreamParser::SetParam(const RtpDecParam&) {
    return unsupported("SetParam Unsup!\n");
}
int CStreamParser::SetParam(const PsEncParam&) {
    return unsupported("SetParam Unsup!\n");
}
int CStreamParser::SetParam(const TsEncParam&) {
    return unsupported("SetParam Unsup!\n");
}
int CStreamParser::SetParam(const RtpEncParam&) {
    return unsupported("SetParam Unsup!\n");
}
int CStreamParser::SetParam(const RtpOverTcpParam&) {
    return unsupported("SetParam Unsup!\n");
}
int CStreamParser::GetParam(RtpEncParam&) {
    return unsupported("GetParam Unsup!\n");
}
int CStreamParser::GetStatis(ParserStatis&) {
    return unsupported("GetStatis Unsup!\n");
}
void CStreamParser::PrintInfo() {
    logError("PrintInfo Unsup!\n");
}

void CStreamParser::print_head(int src_type, int dst_type) {
    R3Printf("\n");
    R3Printf(">>> ==========================================================\n");
    R3Printf(">>> StreamParser [%s] -> [%s]\n", stream_type_name(src_type), stream_type_name(dst_type));
}

}  // namespace Vidora
}  // namespace Kavio
