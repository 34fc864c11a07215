#ifndef VIDORA_HOST_ANNEXB_H
#define VIDORA_HOST_ANNEXB_H

#include <cstddef>
#include <vector>

#include "Vidora/H264Parser.h"

// H.264 byte streams (ISO 14496-10 annex B) in the form that the packetiser reads.
//
// By the standards' way it sends each NAL unit as its own (RFC 6184). By the library's own way it doesn't see
// three-byte start codes, and sends what follows a picture's first slice as a part of that slice.

// How many slices a picture may have.
enum slices_t { ONE_SLICE, ANY_SLICES };

// A NAL unit without its start code.
struct NalUnit {
    const unsigned char* data;
    size_t size;  // above 0
};

// The NAL units of a byte stream, whichever start codes it has.
std::vector<NalUnit> SplitNalUnits(const unsigned char* data, size_t size);
// Puts a NAL unit behind a four-byte start code at the end of `bytes`.
void AppendNalUnit(std::vector<unsigned char>& bytes, const NalUnit& nal);
// Does a stream have a three-byte start code?
bool HasShortStartCode(const unsigned char* data, size_t size);

// Is it a slice of a picture?
bool IsSlice(const NalUnit& nal);
bool IsBSlice(const Kavio::Vidora::H264Slice& slice);
// Behind the slices of a picture, does it begin the next one (ISO 14496-10 7.4.1.2.3)?
bool BeginsPicture(const NalUnit& nal);
// Why a NAL unit can't be sent; null if it can. `sps` is the parameter set that goes before it, `slice` takes what a
// slice's head tells.
const char* WhyNotSent(const NalUnit& nal, const Kavio::Vidora::H264Sps& sps, Kavio::Vidora::H264Slice& slice,
                       slices_t slices);
// The same for all NAL units of one picture.
const char* WhyNotSent(const unsigned char* picture, size_t size, slices_t slices);

#endif  // VIDORA_HOST_ANNEXB_H
