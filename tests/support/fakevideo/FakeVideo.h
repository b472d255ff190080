#pragma once

#include <array>
#include <cstdint>

namespace kestrova::test {

/// What the pictures show: a colour for each quarter, top left, top right, bottom left, bottom
/// right.
struct FakeColour {
  std::uint8_t y;
  std::uint8_t u;
  std::uint8_t v;
};
inline constexpr std::array<FakeColour, 4> kFakeQuarters{
    {{200, 90, 150}, {60, 170, 100}, {120, 128, 128}, {35, 140, 190}}};

}  // namespace kestrova::test

/// Cameras that aren't there, for programs that link this library or are started with it in
/// LD_PRELOAD: it stands in for the system calls on /dev/video*, of which it hides the real ones.
///
/// The cameras are described by a text, from the variable FAKEVIDEO or by `fakevideoConfigure`:
/// one for each ';', its device file first, then words:
///   card=Front_Camera bus=usb-1     name (underscores are blanks) and place
///   modes=YUYV:640x480@30,...       also UYVY, NV12, YU12, MJPG, and any other as zeros
///   kind=metadata                   a node that captures no pictures
///   open=13                         refuses to be opened, with this errno
///   busy=1                          is in use by somebody else
///   give=H264                       gives that format whatever is asked for
///   pad=64                          bytes after each line
///   hang=1                          VIDIOC_STREAMON doesn't return until `fakevideoRelease`
///   unplug=5 stall=5                goes, or falls silent, after so many pictures
///   corrupt=3                       every third picture is cut off
extern "C" {
/// For handles opened from now on; those that are open keep their camera.
void fakevideoConfigure(const char* cameras);
/// Ends all hanging calls.
void fakevideoRelease();
/// How many handles are open.
int fakevideoOpenHandles();
}
