#!/usr/bin/env bash
# Makes the bundled sample streams for "boxweave record": four seconds of H.264 (320x240, 30 fps,
# B-frames, an IDR picture every 30, Annex-B) and of AAC-LC (48 kHz stereo, ADTS), into samples/.
# Run again after changing it; the two files are kept in the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
ffmpeg=${FFMPEG:-/usr/bin/ffmpeg}
mkdir -p samples
# No scene-cut key frames, so that the groups of pictures are exactly 30; bit-exact output. The
# encoder's SEI (its version banner, some 700 bytes in front of the first slice) is left out: a camera
# sends parameter sets and slices, and the track rewrites a short head in place.
"$ffmpeg" -hide_banner -loglevel error -y \
  -f lavfi -i "testsrc=size=320x240:rate=30:duration=4" \
  -c:v libx264 -preset medium -profile:v high -pix_fmt yuv420p -g 30 -keyint_min 30 -sc_threshold 0 \
  -bf 2 -b:v 300k -x264-params "bframes=2:b-adapt=0" -fflags +bitexact -flags +bitexact \
  -bsf:v filter_units=remove_types=6 -f h264 samples/sample.h264
"$ffmpeg" -hide_banner -loglevel error -y \
  -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=4" \
  -f lavfi -i "sine=frequency=660:sample_rate=48000:duration=4" \
  -filter_complex "[0:a][1:a]join=inputs=2:channel_layout=stereo[a]" -map "[a]" \
  -c:a aac -profile:a aac_low -b:a 96k -ar 48000 -ac 2 -fflags +bitexact -flags +bitexact \
  -f adts samples/sample.aac
ls -l samples/sample.h264 samples/sample.aac
