#!/usr/bin/env bash
# Records a fixed matrix of files (both flavours; plain, spilled, table-file, cached and chunked
# recordings; the bundled sample and streams made here by ffmpeg) with BOXWEAVE and prints one line a
# file: exit status, md5, name, arguments. The clock is frozen, so the creation times do not vary.
# Run it before and after a change that must not alter what is written, and compare the two lists:
#   scripts/recording-checksums.sh build-old/boxweave > before.md5
#   scripts/recording-checksums.sh build/boxweave > after.md5 && diff before.md5 after.md5
set -u
cd "$(dirname "$0")/.."
bw=$(realpath "${1:-build/boxweave}")
work=${2:-$(mktemp -d)}
scripts/deps.sh ffmpeg faketime >&2
mkdir -p "$work/in" "$work/out" "$work/tmp"
S=samples I=$work/in
make_input() {
  [ -s "$I/$1" ] || ffmpeg -hide_banner -loglevel error -y "${@:2}" -fflags +bitexact -flags +bitexact "$I/$1"
}
make_input long.h264 -f lavfi -i testsrc=size=128x96:rate=30:duration=150 -c:v libx264 -preset ultrafast -g 30 -bf 0 \
  -bsf:v filter_units=remove_types=6 -f h264
make_input long.aac -f lavfi -i sine=frequency=440:sample_rate=44100:duration=150 -c:a aac -ac 1 -f adts
make_input b3.h264 -f lavfi -i testsrc=size=176x144:rate=25:duration=6 -c:v libx264 -preset fast -g 25 -bf 3 -f h264
run() {
  local name=$1
  shift
  faketime -f "2020-01-01 00:00:00" "$bw" --log-level E record -o "$work/out/$name" "$@" --tmp "$work/tmp" >/dev/null 2>&1
  echo "$? $(md5sum <"$work/out/$name" 2>/dev/null | cut -c1-32) $name $*"
}
av=(--video "$S/sample.h264" --audio "$S/sample.aac")
for f in mov mp4; do
  run s.$f "${av[@]}"
  run sv.$f --video "$S/sample.h264"
  run sa.$f --audio "$S/sample.aac"
  run sspill.$f "${av[@]}" --spill
  run stf.$f "${av[@]}" --table-files
  run sboth.$f "${av[@]}" --table-files --spill
  run scache.$f "${av[@]}" --cache-block 4096 --cache-blocks 3
  run schunk.$f "${av[@]}" --set videosampleperchunk=7 --set audiosampleperchunk=3072
  run sfirst.$f "${av[@]}" --set videosampleperchunk=4 --set audiosampleperchunk=4096 --set audio_chunk_first=1
  run sorder.$f "${av[@]}" --set stbl_order=1 --set no_udta=1 --set moov_first=1
  run stfchunk.$f "${av[@]}" --table-files --set videosampleperchunk=5 --set audiosampleperchunk=5120
  run sfps.$f "${av[@]}" --fps 30000/1001
  run long.$f --video "$I/long.h264" --audio "$I/long.aac"
  run longtf.$f --video "$I/long.h264" --audio "$I/long.aac" --table-files --spill
  run b3.$f --video "$I/b3.h264" --fps 25
done
echo "temporary files left: $(ls -A "$work/tmp" | wc -l)"
