#!/usr/bin/env bash
# Builds the fuzz targets with clang into build-fuzz and runs each for SECONDS (default 60) on seeds:
# the bundled samples, their recordings by the command-line host and, when ffmpeg is there, small
# movies, fragmented files and streams it makes.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]   (targets: box_parse_fuzz es_reader_fuzz play_fuzz)
# Findings land in build-fuzz/findings/TARGET; the corpora grow in build-fuzz/corpus/TARGET.
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(box_parse_fuzz es_reader_fuzz play_fuzz)

scripts/deps.sh clang cmake make libcli11-dev nlohmann-json3-dev
launcher=()
if command -v ccache >/dev/null 2>&1; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBOXWEAVE_FUZZ=ON \
  -DBOXWEAVE_TESTS=OFF -DBOXWEAVE_TOOLS=ON -DBOXWEAVE_BENCH=OFF -DBOXWEAVE_WERROR=ON "${launcher[@]}" >/dev/null
# The command-line host records the play target's seeds.
cmake --build build-fuzz -j "$(nproc)" --target "${targets[@]}" boxweave

# Seeds. The box target's first byte picks the reader's attributes, the stream target's the read
# block; a seed gets one byte in front for that.
seeds=build-fuzz/seeds
mkdir -p "$seeds/box" "$seeds/es" "$seeds/play"
if command -v ffmpeg >/dev/null 2>&1; then
  ff() { ffmpeg -loglevel error -y "$@" </dev/null || echo "fuzz.sh: ffmpeg could not make ${*: -1}" >&2; }
  src=(-f lavfi -i testsrc=size=64x48:rate=10 -f lavfi -i sine=frequency=440:sample_rate=8000 -t 1)
  [ -s "$seeds/raw.mov" ] || ff "${src[@]}" -c:v libx264 -g 5 -c:a aac "$seeds/raw.mov"
  [ -s "$seeds/raw.mp4" ] || ff "${src[@]}" -c:v libx264 -g 5 -c:a aac "$seeds/raw.mp4"
  [ -s "$seeds/raw-frag.mp4" ] || ff "${src[@]}" -c:v libx264 -g 5 -c:a aac \
    -movflags frag_keyframe+empty_moov "$seeds/raw-frag.mp4"
  [ -s "$seeds/raw-pcm.mov" ] || ff "${src[@]}" -c:v mjpeg -c:a pcm_s16le "$seeds/raw-pcm.mov"
  [ -s "$seeds/raw.h264" ] || ff -f lavfi -i testsrc=size=64x48:rate=10 -t 1 -c:v libx264 -g 5 "$seeds/raw.h264"
  [ -s "$seeds/raw.aac" ] || ff -f lavfi -i sine=frequency=440:sample_rate=8000 -t 1 -c:a aac -f adts "$seeds/raw.aac"
  [ -s "$seeds/raw.h265" ] || ff -f lavfi -i testsrc=size=64x48:rate=10 -t 1 -c:v libx265 \
    -x265-params log-level=none:keyint=5 -f hevc "$seeds/raw.h265"
  [ -s "$seeds/raw.mjpeg" ] || ff -f lavfi -i testsrc=size=64x48:rate=10 -t 1 -c:v mjpeg -f mjpeg "$seeds/raw.mjpeg"
  [ -s "$seeds/raw.wav" ] || ff -f lavfi -i sine=frequency=440:sample_rate=8000 -t 1 -c:a pcm_s16le "$seeds/raw.wav"
  [ -s "$seeds/raw.srt" ] || printf '1\n00:00:00,100 --> 00:00:00,500\nfirst\n\n2\n00:00:00,600 --> 00:00:00,900\nsecond\n' \
    >"$seeds/raw.srt"
  [ -s "$seeds/raw-faststart.mp4" ] || ff "${src[@]}" -c:v libx264 -g 5 -bf 2 -c:a aac -movflags +faststart \
    "$seeds/raw-faststart.mp4"
fi
# The bundled sample recorded by the plug-in, in both formats and fragmented; the first second of
# it, small; and the other codecs' short streams.
for ext in mov mp4; do
  [ -s "$seeds/rec.$ext" ] || build-fuzz/boxweave record -o "$seeds/rec.$ext" --video samples/sample.h264 \
    --audio samples/sample.aac >/dev/null || echo "fuzz.sh: could not record rec.$ext" >&2
  if [ ! -s "$seeds/rec-short.$ext" ] && [ -s "$seeds/raw.h264" ] && [ -s "$seeds/raw.aac" ]; then
    build-fuzz/boxweave record -o "$seeds/rec-short.$ext" --video "$seeds/raw.h264" --audio "$seeds/raw.aac" \
      --fps 10 >/dev/null || echo "fuzz.sh: could not record rec-short.$ext" >&2
  fi
done
[ -s "$seeds/rec-frag.mp4" ] || build-fuzz/boxweave record -o "$seeds/rec-frag.mp4" --fragmented \
  --video samples/sample.h264 --audio samples/sample.aac >/dev/null || echo "fuzz.sh: could not record rec-frag.mp4" >&2
if [ ! -s "$seeds/rec-codecs.mov" ] && [ -s "$seeds/raw.h265" ] && [ -s "$seeds/raw.wav" ]; then
  build-fuzz/boxweave record -o "$seeds/rec-codecs.mov" --video "$seeds/raw.h265" --audio "$seeds/raw.wav" \
    --fps 10 >/dev/null || echo "fuzz.sh: could not record rec-codecs.mov" >&2
fi
if [ ! -s "$seeds/rec-jpeg.mp4" ] && [ -s "$seeds/raw.mjpeg" ] && [ -s "$seeds/raw.srt" ]; then
  build-fuzz/boxweave record -o "$seeds/rec-jpeg.mp4" --video "$seeds/raw.mjpeg" --text "$seeds/raw.srt" \
    --fps 10 >/dev/null || echo "fuzz.sh: could not record rec-jpeg.mp4" >&2
fi
i=0
for f in "$seeds"/raw*.mov "$seeds"/raw*.mp4; do
  [ -s "$f" ] || continue
  for pick in 00 01 07 80 3f; do
    { printf "\\x$pick"; cat "$f"; } >"$seeds/box/$((i++))"
  done
done
# Whole files for the play target, behind the byte that picks the tables' way: in memory; on file
# for every table with 32 KiB and with 256-byte blocks; on file over the default switch size.
for f in "$seeds"/raw*.mov "$seeds"/raw*.mp4 "$seeds"/rec*.mov "$seeds"/rec*.mp4; do
  [ -s "$f" ] || continue
  for pick in 00 03 0b 01; do
    { printf "\\x$pick"; cat "$f"; } >"$seeds/play/$((i++))"
  done
done
for f in samples/*.h264 samples/*.aac "$seeds"/raw.h264 "$seeds"/raw.aac "$seeds"/raw.h265 "$seeds"/raw.mjpeg \
  "$seeds"/raw.wav "$seeds"/raw.srt; do
  [ -s "$f" ] || continue
  { printf '\x02'; head -c 65536 "$f"; } >"$seeds/es/$((i++))"
done

status=0
for t in "${targets[@]}"; do
  seed=$seeds/box
  [ "$t" = es_reader_fuzz ] && seed=$seeds/es
  [ "$t" = play_fuzz ] && seed=$seeds/play
  mkdir -p "build-fuzz/corpus/$t" "build-fuzz/findings/$t"
  echo "fuzz.sh: $t for $secs s"
  "build-fuzz/$t" -max_total_time="$secs" -timeout=10 -rss_limit_mb=1024 -max_len=1048576 \
    -artifact_prefix="build-fuzz/findings/$t/" -print_final_stats=1 "build-fuzz/corpus/$t" "$seed" || status=1
done
exit $status
