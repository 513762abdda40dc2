#!/usr/bin/env bash
# Makes the real media files that the media tests, later steps and the benches read.
# Usage: make_media.sh OUT_DIR
#
# Every file is a few seconds of ffmpeg's lavfi test sources (testsrc picture, sine tone),
# small where the target format allows. A file that already exists is kept, so the set is
# made once per build tree. Files are written under a temporary name and renamed when
# complete, so an interrupted run never leaves a half-written file behind.
set -euo pipefail

out="${1:?usage: make_media.sh OUT_DIR}"
mkdir -p "$out"
cd "$out"

ff=(ffmpeg -nostdin -hide_banner -loglevel error -y)
# Deterministic output: no encoder or muxer version strings, fixed seeds.
common=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact)

video() {  # video SIZE RATE SECONDS
  echo -f lavfi -i "testsrc=size=$1:rate=$2:duration=$3"
}
audio() {  # audio SECONDS
  echo -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$1"
}

# encode NAME ffmpeg-arguments... : runs ffmpeg into NAME unless NAME exists.
encode() {
  local name="$1"
  shift
  [ -s "$name" ] && return 0
  local tmp="partial-$name"
  rm -f "$tmp"
  "${ff[@]}" "$@" "${common[@]}" "$tmp"
  mv "$tmp" "$name"
}

# MPEG-1 system stream.
encode mpeg1.mpg $(video 160x120 25 3) $(audio 3) \
  -c:v mpeg1video -b:v 400k -c:a mp2 -b:a 128k -f mpeg
# Video CD (MPEG-1, 2324-byte packs, 352x288 at 25 fps).
encode vcd.mpg $(video 352x288 25 2) $(audio 2) -target pal-vcd -f vcd
# Super Video CD (MPEG-2, 2324-byte packs, 480x576 at 25 fps).
encode svcd.mpg $(video 480x576 25 2) $(audio 2) -target pal-svcd -f svcd
# DVD-Video (MPEG-2 with navigation packs, 720x480 at 29.97 fps).
encode dvd.vob $(video 720x480 30000/1001 2) $(audio 2) -target ntsc-dvd -f dvd
# The DVD file under a plain MPEG name.
[ -s dvd_as.mpg ] || cp dvd.vob dvd_as.mpg
# MPEG-2 program stream without navigation packs; AC-3 audio in private stream 1.
encode mpeg2ps.mpg $(video 176x144 25 3) $(audio 3) \
  -c:v mpeg2video -b:v 500k -c:a ac3 -b:a 128k -f vob
# A longer MPEG-2 program stream (about 20 s) for the benches.
encode mpeg2ps_long.mpg $(video 320x240 25 20) $(audio 20) \
  -c:v mpeg2video -b:v 1500k -c:a mp2 -b:a 192k -f vob
# Transport streams: 188-byte packets, and 192-byte units (4-byte time-code prefix).
encode ts188.ts $(video 176x144 25 3) $(audio 3) -c:v mpeg2video -c:a mp2 -f mpegts
encode m2ts192.ts $(video 176x144 25 3) $(audio 3) \
  -c:v mpeg2video -c:a mp2 -f mpegts -mpegts_m2ts_mode 1
[ -s m2ts192.m2ts ] || cp m2ts192.ts m2ts192.m2ts
# 204-byte units: each 188-byte packet of ts188.ts behind a 16-byte 0xFF prefix.
if [ ! -s ts204.ts ]; then
  perl -e 'binmode STDIN; binmode STDOUT; local $/ = \188;
           while (<STDIN>) { print "\xff" x 16, $_ if length($_) == 188 }' \
    <ts188.ts >partial-ts204.ts
  mv partial-ts204.ts ts204.ts
fi
# A transport stream with two programs, each with its own video and audio.
if [ ! -s ts2prog.ts ]; then
  "${ff[@]}" $(video 176x144 25 3) $(audio 3) \
    -f lavfi -i "testsrc2=size=176x144:rate=25:duration=3" \
    -f lavfi -i "sine=frequency=880:sample_rate=48000:duration=3" \
    -map 0:v -map 1:a -map 2:v -map 3:a -c:v mpeg2video -c:a mp2 \
    -program program_num=1:title=One:st=0:st=1 -program program_num=2:title=Two:st=2:st=3 \
    -f mpegts "${common[@]}" partial-ts2prog.ts
  mv partial-ts2prog.ts ts2prog.ts
fi
# Containers recognised by name only (and RIFF AVI by its header).
encode avi.avi $(video 176x144 25 2) $(audio 2) -c:v mpeg4 -c:a pcm_s16le -f avi
encode mp4.mp4 $(video 176x144 25 2) $(audio 2) -c:v mpeg4 -c:a aac -f mp4
encode mov.mov $(video 176x144 25 2) $(audio 2) -c:v mpeg4 -c:a aac -f mov
encode wmv.wmv $(video 176x144 25 2) $(audio 2) -c:v wmv2 -c:a wmav2 -f asf
encode asf.asf $(video 176x144 25 2) $(audio 2) -c:v wmv1 -c:a wmav1 -f asf
touch .complete
