# Makes things to look at from an H.264 elementary stream, with GStreamer alone. Sourced after common.sh.
# shellcheck shell=bash

# toMp4 ELEMENTARY MP4: as it is, at the stream's own frame rate. The detour through a transport stream gives
# each picture the presentation time that the MP4 muxer asks for.
toMp4() {
    gst-launch-1.0 -q filesrc location="$1" ! h264parse ! mpegtsmux ! tsdemux ! h264parse ! mp4mux ! \
        filesink location="$2"
}

# playsMp4 MP4: decodes all of it, to nowhere.
playsMp4() {
    gst-launch-1.0 -q filesrc location="$1" ! qtdemux ! h264parse ! avdec_h264 ! fakesink
}

# toFrames ELEMENTARY PREFIX: every picture as PREFIX00000.png and so on.
toFrames() {
    gst-launch-1.0 -q filesrc location="$1" ! h264parse ! avdec_h264 ! videoconvert ! videoscale ! \
        video/x-raw,width=480,height=270,format=RGB ! pngenc compression-level=1 ! \
        multifilesink location="$2%05d.png"
}

# toSheet OUT COLUMNS {PICTURE CAPTION}...: the pictures of toFrames in a grid.
toSheet() {
    local out=$1 columns=$2 n=0 pads=() branches=()
    local width=480 height=270 gap=8
    shift 2
    while [ $# -gt 1 ]; do
        pads+=("sink_$n::xpos=$((gap + n % columns * (width + gap)))"
            "sink_$n::ypos=$((gap + n / columns * (height + gap)))")
        branches+=(filesrc "location=$1" ! pngdec ! videoconvert ! textoverlay "text=\"$2\"" valignment=bottom
            "font-desc=\"Sans Bold 20\"" shaded-background=true ! imagefreeze num-buffers=1 ! "sheet.sink_$n")
        shift 2
        n=$((n + 1))
    done
    gst-launch-1.0 -q compositor name=sheet background=black "${pads[@]}" ! videoconvert ! \
        pngenc snapshot=true ! filesink location="$out" "${branches[@]}"
}
