// The reference host's commands.
#pragma once

namespace phonecam {
// `demo`: both links against the built-in simulated phone. Non-zero when a session decoded no
// video or no audio.
int Demo(int argc, char** argv);
// `connect`: one session with a phone over USB (Android or iPhone) or WiFi until Ctrl-C. 0 when
// pictures came and the session ended as asked.
int Connect(int argc, char** argv);
// `devices`: the phones attached now, as a table or (--json) as the library reports them.
int Devices(int argc, char** argv);
// `doctor`: a checklist of what a session needs from this machine; non-zero when something blocks.
int Doctor(int argc, char** argv);
}  // namespace phonecam
