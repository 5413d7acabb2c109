# v4l2-ctl --list-formats-ext -> "codec W H" per discrete size of the pixel formats the
# element uses, in the driver's order (what the element's format list must equal).
BEGIN {
  codec["H264"] = "h264"; codec["HEVC"] = "hevc"; codec["MJPG"] = "mjpeg"
  codec["YUYV"] = "yuyv"; codec["NV12"] = "nv12"
}
/^[ \t]*\[[0-9]+\]: '/ {
  match($0, /'[^']*'/)
  current = substr($0, RSTART + 1, RLENGTH - 2)
  next
}
/Size: Discrete/ {
  if (current in codec) {
    split($3, wh, "x")
    print codec[current], wh[1], wh[2]
  }
}
