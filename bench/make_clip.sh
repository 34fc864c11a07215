#!/bin/sh
# Makes the H.264 clip for bench_convert with FFmpeg: key frames only, of about 2, 20 and 200 kB, without
# the encoder's notes on itself.
#     bench/make_clip.sh OUT.h264
set -e
out=${1:?usage: make_clip.sh OUT.h264}
piece() {  # picture size, quantiser
    ffmpeg -v error -f lavfi -i "testsrc2=size=$1:rate=25,noise=alls=20" -frames:v 5 -pix_fmt yuv420p \
        -c:v libx264 -qp "$2" -x264-params "keyint=1:sliced-threads=0:slices=1:annexb=1" \
        -bsf:v filter_units=remove_types=6 -f h264 -
}
{
    piece 128x96 40
    piece 352x288 36
    piece 1280x720 34
} > "$out"
